#include "platform/base/Description.h"

#include <algorithm>

#include "platform/base/Value.h"

namespace velkor::NS {
namespace {

// Inside a collection everything but a plain word stands in quotes.
void appendWord(std::string& text, std::string_view word) {
    const auto plain = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    };
    if (!word.empty() && std::all_of(word.begin(), word.end(), plain)) {
        text += word;
        return;
    }
    text += '"';
    for (const char c : word) {
        if (c == '"' || c == '\\') text += '\\';
        if (c == '\n') {
            text += "\\n";
        } else {
            text += c;
        }
    }
    text += '"';
}

void appendElement(std::string& text, const Value& value, std::size_t indent) {
    if (const Array* array = value.asArray()) {
        appendDescription(text, *array, indent);
    } else if (const Dictionary* dictionary = value.asDictionary()) {
        appendDescription(text, *dictionary, indent);
    } else if (const auto string = value.asString()) {
        appendWord(text, *string);
    } else if (value.kind() == Value::Kind::date || value.kind() == Value::Kind::real || value.kind() == Value::Kind::decimal) {
        appendWord(text, value.description());
    } else {
        text += value.description();
    }
}

}  // namespace

void appendDescription(std::string& text, const Array& array, std::size_t indent) {
    const std::string margin(indent + 4, ' ');
    text += '(';
    const char* separator = "\n";
    for (const Value& value : array) {
        text += separator;
        text += margin;
        appendElement(text, value, indent + 4);
        separator = ",\n";
    }
    text += '\n';
    text.append(indent, ' ');
    text += ')';
}

void appendDescription(std::string& text, const Dictionary& dictionary, std::size_t indent) {
    const std::string margin(indent + 4, ' ');
    text += "{\n";
    for (const auto& [key, value] : dictionary) {
        text += margin;
        appendWord(text, key);
        text += " = ";
        appendElement(text, value, indent + 4);
        text += ";\n";
    }
    text.append(indent, ' ');
    text += '}';
}

}  // namespace velkor::NS
