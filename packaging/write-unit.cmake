# Writes the launcher's systemd unit for the prefix of the install under way (run by
# cmake --install; the caller sets the TOLVA_ variables).
cmake_path(ABSOLUTE_PATH TOLVA_LIBEXECDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
           OUTPUT_VARIABLE libexec)
set(TOLVA_LAUNCHER_PATH "${libexec}/tolva-migrate")
configure_file("${TOLVA_UNIT_TEMPLATE}" "${TOLVA_UNIT_OUTPUT}" @ONLY)
