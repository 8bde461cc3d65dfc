#include "examples/notes/Preferences.h"

#include <VelkorSync/AtomicFile.h>
#include <VelkorSync/CJSONDeserializer.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "examples/notes/Dump.h"
#include "examples/notes/Options.h"

namespace notes {

using namespace velkor;
namespace fs = std::filesystem;

namespace {

constexpr std::string_view preferencesObjectId = "preferences";
constexpr std::array<std::string_view, 2> preferenceKeyPaths{"theme", "editor.fontSize"};
constexpr std::uint64_t largestPreferencesFile = 1 << 20;

/// None for a file that holds no preferences.
std::optional<NS::Dictionary> readPreferences(const fs::path& file) {
    std::error_code ignored;
    if (!fs::exists(file, ignored)) return NS::Dictionary();
    auto bytes = NS::readFile(file, largestPreferencesFile);
    if (!bytes.ok()) throw CommandError(bytes.error().localizedDescription());
    auto members = dictionaryWithJSONData(bytes.value(), nullptr);
    if (!members) return std::nullopt;
    for (auto keyPath : preferenceKeyPaths) {
        const NS::Value* value = members->find(keyPath);
        if (value && !value->isString()) return std::nullopt;
    }
    return members;
}

/// The values as objects that can be observed, one inside the other.
std::shared_ptr<NS::Observable> observableValues(const NS::Dictionary& members) {
    auto values = std::make_shared<NS::Observable>();
    for (auto keyPath : preferenceKeyPaths) {
        auto holder = values;
        auto key = keyPath;
        for (auto dot = key.find('.'); dot != key.npos; dot = key.find('.')) {
            auto inner = holder->valueForKey(key.substr(0, dot)).as<NS::Observable>();
            if (!inner) {
                inner = std::make_shared<NS::Observable>();
                holder->setValueForKey(inner, key.substr(0, dot));
            }
            holder = inner;
            key.remove_prefix(dot + 1);
        }
        holder->setValueForKey(members[keyPath], key);
    }
    return values;
}

}  // namespace

Preferences::Preferences(fs::path file, VLKSyncController& controller)
    : m_file(std::move(file)), m_changedFile(m_file), m_controller(controller), m_values(observableValues({})) {
    m_changedFile += ".new";
}

void Preferences::requireKeyPath(std::string_view keyPath) {
    if (std::find(preferenceKeyPaths.begin(), preferenceKeyPaths.end(), keyPath) != preferenceKeyPaths.end()) return;
    throw UsageError("there is no preference " + std::string(keyPath));
}

bool Preferences::load() {
    auto members = readPreferences(m_file);
    m_members = members.value_or(NS::Dictionary());
    m_values = observableValues(m_members);
    return members.has_value();
}

void Preferences::observe() {
    if (m_observed) return;
    for (auto keyPath : preferenceKeyPaths) m_controller.registerObservationOfKeyPath(keyPath, m_values, preferencesObjectId);
    m_observed = true;
}

void Preferences::disregard() {
    if (!m_observed) return;
    for (auto keyPath : preferenceKeyPaths) m_controller.unregisterObservationOfKeyPath(keyPath, preferencesObjectId);
    m_observed = false;
}

std::optional<std::string> Preferences::value(std::string_view keyPath) const {
    const NS::Value value = m_values->valueForKeyPath(keyPath);
    return value ? std::optional(value.stringOr("")) : std::nullopt;
}

void Preferences::change(std::string_view keyPath, const std::optional<std::string>& value) {
    NS::Dictionary members = m_members;
    if (value) {
        members.set(keyPath, *value);
    } else {
        members.remove(keyPath);
    }
    auto written = NS::writeFileAtomically(m_changedFile, jsonText(members) + "\n");
    if (!written.ok()) throw CommandError(written.error().localizedDescription());
    finishChange();
}

void Preferences::write() const {
    auto written = NS::writeFileAtomically(m_file, jsonText(m_members) + "\n");
    if (!written.ok()) throw CommandError(written.error().localizedDescription());
}

bool Preferences::changeWaits() const {
    std::error_code ignored;
    return fs::exists(m_changedFile, ignored);
}

void Preferences::finishChange() {
    auto members = readPreferences(m_changedFile);
    if (!members) throw CommandError(m_changedFile.string() + " is damaged; remove it");
    for (auto keyPath : preferenceKeyPaths) {
        if ((*members)[keyPath] != m_members[keyPath]) m_values->setValueForKeyPath((*members)[keyPath], keyPath);
    }
    m_controller.save();
    std::error_code error;
    fs::rename(m_changedFile, m_file, error);
    if (error) throw CommandError("cannot write " + m_file.string() + ": " + error.message());
    m_members = std::move(*members);
}

}  // namespace notes
