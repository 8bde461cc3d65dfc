// Commands about the user's preferences.
#include <VelkorSync/UTF8.h>

#include <iostream>

#include "examples/notes/Command.h"

namespace notes {

namespace {

void changePreference(Installation& installation, const std::string& keyPath, const std::optional<std::string>& value) {
    Preferences::requireKeyPath(keyPath);
    if (installation.account()) installation.useAccount();
    installation.preferences().change(keyPath, value);
}

void setPreference(Installation& installation, const Arguments& arguments) {
    if (!velkor::NS::isValidUTF8(arguments[1])) throw CommandError("the value is not UTF-8");
    changePreference(installation, arguments[0], arguments[1]);
}

void unsetPreference(Installation& installation, const Arguments& arguments) {
    changePreference(installation, arguments[0], std::nullopt);
}

void printPreference(Installation& installation, const Arguments& arguments) {
    Preferences::requireKeyPath(arguments[0]);
    auto value = installation.preferences().value(arguments[0]);
    if (!value) throw CommandError(arguments[0] + " is not set");
    std::cout << *value << '\n';
}

}  // namespace

std::vector<Command> preferenceCommands() {
    return {
        {"set", "KEYPATH VALUE", "sets a preference: theme or editor.fontSize", {}, 2, 2, setPreference},
        {"unset", "KEYPATH", "removes a preference", {}, 1, 1, unsetPreference},
        {"get", "KEYPATH", "prints a preference", {}, 1, 1, printPreference},
    };
}

}  // namespace notes
