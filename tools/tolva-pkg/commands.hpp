#pragma once

// The commands of tolva-pkg: list, install and remove the packages of the Tolva database.

#include <ostream>
#include <string>

namespace TolvaPkg {

// Each command writes its report to `out` and throws a std::exception whose text is one line
// when it fails or refuses. A failed install or removal leaves the database as it was.
void list(std::ostream& out);
void install(const std::string& file, std::ostream& out);
void remove(const std::string& id, std::ostream& out);

} // namespace TolvaPkg
