#include "launcher/launcher.hpp"

int main() {
    return Launcher::launch(Launcher::startMigration);
}
