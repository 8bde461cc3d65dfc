// velkor-notes: a notebook for the terminal, kept in step between machines.
#include <VelkorSync/Exception.h>
#include <VelkorSync/RunLoop.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "examples/notes/Command.h"
#include "examples/notes/Model.h"
#include "examples/notes/Text.h"

namespace notes {

namespace {

constexpr const char* usageLine = "usage: velkor-notes [OPTION]... COMMAND [ARGUMENT]...";

constexpr const char* optionsHelp = R"(
options:
  --data DIR            directory of this installation ($XDG_DATA_HOME/velkor-notes)
  --server URL          the service's base URL (http://127.0.0.1:8330)
  --api-key KEY         key sent with every request for changes
  --chunking            send at most 100 changes a request
  --timeout SECONDS     time-out of a request (60)
  --log-level N         what the library logs on standard error: 100 errors to 400 everything (100)
  --model-version TEXT  version of the data model told to the service (1.0)
  --json                JSON output where a command has it
  --quiet               no progress display
  --help                this text

commands:
)";

void printHelp() {
    std::cout << usageLine << '\n' << optionsHelp;
    for (const Command& command : allCommands()) {
        std::cout << "  " << command.name << ' ' << command.usage << "\n      " << command.does << '\n';
    }
}

const Command& commandNamed(std::string_view name) {
    const auto& commands = allCommands();
    auto found = std::find_if(commands.begin(), commands.end(), [&](const Command& command) { return command.name == name; });
    if (found == commands.end()) throw UsageError("unknown command " + std::string(name));
    return *found;
}

int runProgram(int argc, char** argv) {
    Options options;
    int index = readOptions(argc, argv, options);
    if (index == argc) {
        if (!options.help) throw UsageError("no command given");
        printHelp();
        return 0;
    }
    const Command& command = commandNamed(argv[index]);
    Arguments arguments(std::span(argv + index + 1, static_cast<std::size_t>(argc - index - 1)), command.options, options);
    if (options.help) {
        printHelp();
        return 0;
    }
    auto count = arguments.positional().size();
    if (count < command.fewest || count > command.most) {
        throw UsageError(std::string(command.name) + " takes " +
                         (command.usage.empty() ? "no arguments" : std::string(command.usage)));
    }
    velkor::NS::RunLoop::main();
    registerClasses();
    Installation installation(options);
    command.run(installation, arguments);
    std::cout.flush();
    if (!std::cout) throw CommandError("cannot write to standard output");
    return 0;
}

}  // namespace

const std::vector<Command>& allCommands() {
    static const std::vector<Command> commands = [] {
        std::vector<Command> all;
        for (auto group :
             {accountCommands, editCommands, treeCommands, listCommands, preferenceCommands, syncCommands, watchCommands}) {
            for (auto& command : group()) all.push_back(std::move(command));
        }
        return all;
    }();
    return commands;
}

}  // namespace notes

namespace {

int report(int status, std::string_view why) {
    std::cout.flush();
    std::cerr << "velkor-notes: " << notes::printable(why) << '\n';
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    try {
        return notes::runProgram(argc, argv);
    } catch (const notes::UsageError& error) {
        report(2, error.what());
        std::cerr << notes::usageLine << '\n';
        return 2;
    } catch (const velkor::NS::Exception& exception) {
        return report(1, exception.reason());
    } catch (const std::exception& error) {
        return report(1, error.what());
    }
}
