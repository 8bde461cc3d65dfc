#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "examples/notes/Installation.h"
#include "examples/notes/Options.h"

namespace notes {

/// One row of the table of commands.
struct Command {
    std::string_view name;
    std::string_view usage;  // what follows the name
    std::string_view does;
    std::vector<ArgumentOption> options;
    std::size_t fewest;  // positional arguments
    std::size_t most;
    /// Prints its results on standard output; raises CommandError or UsageError.
    void (*run)(Installation& installation, const Arguments& arguments);
};

inline constexpr std::size_t anyNumber = static_cast<std::size_t>(-1);

// A group of commands a source file.
std::vector<Command> editCommands();
std::vector<Command> listCommands();
std::vector<Command> preferenceCommands();
std::vector<Command> treeCommands();
std::vector<Command> syncCommands();
std::vector<Command> watchCommands();
std::vector<Command> accountCommands();

/// All commands, in the order of the help text.
const std::vector<Command>& allCommands();

}  // namespace notes
