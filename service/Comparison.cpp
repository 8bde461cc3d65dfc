#include "service/Comparison.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_set.hpp>

#include "json/JSONCursor.h"
#include "json/JSONWriter.h"
#include "service/Corrections.h"

namespace velkor::service {

void Comparison::take(std::span<const std::string_view> guids, std::int64_t lockSerial) {
    m_heldTexts = m_withholding.guids();
    for (const auto& guid : m_heldTexts) m_held.emplace(guid.text, Held{guid.listed});
    findListed(guids);
    judgeObjects();
    judgeUnknown(lockSerial);
    for (const auto& [guid, held] : m_held) {
        if (!held.still) m_withholding.remove(guid);
    }
    addNews();
    send();
}

void Comparison::findListed(std::span<const std::string_view> guids) {
    m_listed.assign(m_directory.end(), false);
    boost::unordered_flat_set<std::string_view> seen;
    for (const auto guid : guids) {
        const auto object = m_directory.find(guid);
        if (object && m_directory.kind(*object) != ObjectKind::unknown) {
            m_listed[*object] = true;
        } else if (seen.insert(guid).second) {
            m_unknown.push_back(guid);
        }
    }
}

void Comparison::judgeObjects() {
    Corrections corrections(m_connection, m_partition.id, m_instance.id);
    const auto earlier = m_instance.proved ? corrections.objects() : std::vector<std::uint32_t>();
    for (std::uint32_t object = 0; object < m_directory.end(); ++object) {
        const ObjectKind kind = m_directory.kind(object);
        const bool listed = m_listed[object];
        if (kind == ObjectKind::unknown || isLive(kind) == listed) continue;
        const auto guid = m_directory.guid(object);
        if (isWithheld(guid, listed)) continue;
        if (std::binary_search(earlier.begin(), earlier.end(), object)) {
            m_withholding.add(guid, listed);
            m_held.insert_or_assign(guid, Held{listed, true});
        } else {
            m_sent.push_back(object);
        }
    }
}

void Comparison::judgeUnknown(std::int64_t lockSerial) {
    const std::string asked = m_withholding.asked(lockSerial);
    boost::unordered_flat_set<std::string_view> askedBefore;
    JSONCursor cursor(asked);
    std::string_view guid;
    for (cursor.enterArray(); cursor.nextElement() && cursor.string(guid);) askedBefore.insert(guid);
    std::erase_if(m_unknown, [&](std::string_view text) { return isWithheld(text, true) || askedBefore.contains(text); });
    if (m_unknown.empty()) return;

    std::string text;
    JSONWriter writer(text);
    writer.beginArray();
    for (const auto each : askedBefore) writer.string(each);
    for (const auto each : m_unknown) writer.string(each);
    writer.endArray();
    m_withholding.setAsked(lockSerial, text);
}

void Comparison::addNews() {
    if (m_partition.highest == m_instance.answered) return;
    NewTransactions news(m_connection, m_partition.id, m_instance.id, m_instance.answered);
    const auto objects = news.objects();
    const auto middle = static_cast<std::ptrdiff_t>(m_sent.size());
    m_sent.insert(m_sent.end(), objects.begin(), objects.end());
    std::inplace_merge(m_sent.begin(), m_sent.begin() + middle, m_sent.end());
    m_sent.erase(std::unique(m_sent.begin(), m_sent.end()), m_sent.end());
}

void Comparison::send() {
    Corrections(m_connection, m_partition.id, m_instance.id).replace(m_sent);
    m_instance.listing = m_sent.empty() ? 0 : ++m_partition.highest;
    m_instance.proved = false;
}

bool Comparison::isWithheld(std::string_view guid, bool listed) {
    auto found = m_held.find(guid);
    if (found == m_held.end() || found->second.listed != listed) return false;
    found->second.still = true;
    return true;
}

}  // namespace velkor::service
