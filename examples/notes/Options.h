#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace notes {

/// What holds for every command.
struct Options {
    std::filesystem::path data;
    std::optional<std::string> server;
    std::optional<std::string> apiKey;
    bool chunking = false;
    double timeout = 60;
    std::int32_t logLevel = 100;
    std::string modelVersion = "1.0";
    bool json = false;
    bool quiet = false;
    bool help = false;
};

/// Wrong use of the program: status 2 and the usage line.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A command that failed: status 1 and one line that says why.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An option of one command: `--name VALUE`, or `--name` alone.
struct ArgumentOption {
    std::string_view name;
    bool takesValue;
};

/// Reads the general options up to the command's name; returns the index of that name (or argc). Raises UsageError.
int readOptions(int argc, char** argv, Options& options);

/// A command's own arguments. General options are taken here too, unless an option of the command takes them as its value;
/// everything after "--" is positional.
class Arguments {
public:
    Arguments(std::span<char*> arguments, std::span<const ArgumentOption> options, Options& general);

    const std::vector<std::string>& positional() const noexcept { return m_positional; }
    const std::string& operator[](std::size_t index) const { return m_positional[index]; }
    bool has(std::string_view name) const { return value(name).has_value(); }
    /// The last value given for the option.
    std::optional<std::string> value(std::string_view name) const;
    /// All values given for the option, in order.
    std::vector<std::string> values(std::string_view name) const;

private:
    std::vector<std::string> m_positional;
    std::vector<std::pair<std::string, std::string>> m_values;
};

// Numbers and switches of options; raise UsageError.
std::int64_t parseInteger(std::string_view text, std::string_view what);
double parseNumber(std::string_view text, std::string_view what);
bool parseSwitch(std::string_view text, std::string_view what);

}  // namespace notes
