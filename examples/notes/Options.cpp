#include "examples/notes/Options.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace notes {

namespace {

std::filesystem::path defaultDataDirectory() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data) return std::filesystem::path(data) / "velkor-notes";
    if (const char* home = std::getenv("HOME"); home && *home) return std::filesystem::path(home) / ".local/share/velkor-notes";
    return "velkor-notes";
}

template <class Number>
Number parse(std::string_view text, std::string_view what) {
    Number number{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) throw UsageError(std::string(what) + " must be a number");
    return number;
}

double parseSeconds(std::string_view text, std::string_view what) {
    double seconds = parseNumber(text, what);
    if (seconds <= 0) throw UsageError(std::string(what) + " must be above 0");
    return seconds;
}

/// Takes `arguments[index]` as a general option, moving the index over its value; false when it is none.
bool takeGeneralOption(std::span<char*> arguments, std::size_t& index, Options& options) {
    std::string_view name = arguments[index];
    auto value = [&]() -> std::string {
        if (index + 1 >= arguments.size()) throw UsageError(std::string(name) + " needs a value");
        return arguments[++index];
    };
    if (name == "--data") {
        options.data = value();
        if (options.data.empty()) throw UsageError("--data must name a directory");
    } else if (name == "--server") {
        options.server = value();
    } else if (name == "--api-key") {
        options.apiKey = value();
    } else if (name == "--chunking") {
        options.chunking = true;
    } else if (name == "--timeout") {
        options.timeout = parseSeconds(value(), name);
    } else if (name == "--log-level") {
        options.logLevel = parse<std::int32_t>(value(), name);
    } else if (name == "--model-version") {
        options.modelVersion = value();
    } else if (name == "--json") {
        options.json = true;
    } else if (name == "--quiet") {
        options.quiet = true;
    } else if (name == "--help" || name == "-h") {
        options.help = true;
    } else {
        return false;
    }
    return true;
}

}  // namespace

std::int64_t parseInteger(std::string_view text, std::string_view what) { return parse<std::int64_t>(text, what); }

double parseNumber(std::string_view text, std::string_view what) {
    double number = parse<double>(text, what);
    if (!std::isfinite(number)) throw UsageError(std::string(what) + " must be a finite number");
    return number;
}

bool parseSwitch(std::string_view text, std::string_view what) {
    if (text == "on") return true;
    if (text == "off") return false;
    throw UsageError(std::string(what) + " must be on or off");
}

int readOptions(int argc, char** argv, Options& options) {
    options.data = defaultDataDirectory();
    std::span<char*> arguments(argv, static_cast<std::size_t>(argc));
    for (std::size_t index = 1; index < arguments.size(); ++index) {
        if (takeGeneralOption(arguments, index, options)) continue;
        if (arguments[index][0] == '-') throw UsageError("unknown option " + std::string(arguments[index]));
        return static_cast<int>(index);
    }
    return argc;
}

Arguments::Arguments(std::span<char*> arguments, std::span<const ArgumentOption> options, Options& general) {
    bool onlyPositional = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string argument = arguments[i];
        if (onlyPositional || !argument.starts_with("-") || argument == "-") {
            m_positional.push_back(argument);
            continue;
        }
        if (argument == "--") {
            onlyPositional = true;
            continue;
        }
        const ArgumentOption* known = nullptr;
        for (const ArgumentOption& option : options) {
            if (option.name == argument) known = &option;
        }
        if (!known) {
            if (!takeGeneralOption(arguments, i, general)) throw UsageError("unknown option " + argument);
            continue;
        }
        if (known->takesValue && i + 1 >= arguments.size()) throw UsageError(argument + " needs a value");
        m_values.emplace_back(argument, known->takesValue ? arguments[++i] : "");
    }
}

std::optional<std::string> Arguments::value(std::string_view name) const {
    for (auto entry = m_values.rbegin(); entry != m_values.rend(); ++entry) {
        if (entry->first == name) return entry->second;
    }
    return std::nullopt;
}

std::vector<std::string> Arguments::values(std::string_view name) const {
    std::vector<std::string> found;
    for (const auto& [key, text] : m_values) {
        if (key == name) found.push_back(text);
    }
    return found;
}

}  // namespace notes
