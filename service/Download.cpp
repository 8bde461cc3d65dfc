#include "service/Download.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "service/Corrections.h"

namespace velkor::service {
namespace {

constexpr Sql nameOfInstance{"SELECT name FROM instances WHERE id = :id AND partition_id = :partition", "ii:t"};
constexpr std::array<std::string_view, 2> kindNames{"changes", "listing"};
constexpr std::int64_t mostPages = 1'000'000'000, largestPage = 1'000'000;
constexpr std::size_t mostPlaces = 1000;
constexpr std::size_t bytesOfTransaction = 1024;  // a guess

/// A whole number from 0 up, to the end of the text.
std::optional<std::int64_t> readNumber(std::string_view text) {
    std::int64_t number = 0;
    const char* end = text.data() + text.size();
    auto [stop, code] = std::from_chars(text.data(), end, number);
    if (code != std::errc() || stop != end || number < 0) return std::nullopt;
    return number;
}

}  // namespace

std::string Download::identifier() const {
    std::string text(kindNames[static_cast<std::size_t>(kind)]);
    for (std::int64_t number : {partition, instance, above, highest, epoch, page}) text += '-' + std::to_string(number);
    return text;
}

std::optional<Download> Download::parse(std::string_view identifier) {
    const auto name = std::find(kindNames.begin(), kindNames.end(), identifier.substr(0, identifier.find('-')));
    if (name == kindNames.end()) return std::nullopt;
    identifier.remove_prefix(name->size());
    std::array<std::int64_t, 6> numbers;
    for (auto& number : numbers) {
        if (!identifier.starts_with('-')) return std::nullopt;
        identifier.remove_prefix(1);
        const auto text = identifier.substr(0, identifier.find('-'));
        const auto read = readNumber(text);
        if (!read) return std::nullopt;
        number = *read;
        identifier.remove_prefix(text.size());
    }
    if (!identifier.empty() || numbers[5] == 0 || numbers[5] > largestPage) return std::nullopt;
    return Download{
        static_cast<Kind>(name - kindNames.begin()), numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5]};
}

Response DownloadEndpoint::handle(const User& user, std::string_view pageText, std::string_view identifier) {
    const auto page = readNumber(pageText);
    const auto download = Download::parse(identifier);
    if (!page || *page == 0 || *page > mostPages || !download) return Response::error(400, "This is no page of a download.");
    const std::string key(identifier);
    std::string instance;
    Response response = m_database.read([&](Connection& connection) {
        const auto partition = Partition::find(connection, user.id, download->partition);
        auto names = connection.query(nameOfInstance, download->instance, download->partition);
        if (!partition || !names.next()) return Response::error(404, "There is no such download.");
        instance = names.text(0);
        if (partition->highest != download->highest || partition->epoch != download->epoch) {
            return Response::error(409, "The data have changed since the download began.");
        }
        if (download->kind == Download::Kind::changes) {
            return answer(NewTransactions(connection, partition->id, download->instance, download->above), *download, key, *page);
        }
        if (Instance::find(connection, partition->id, instance)->listing != download->above) {
            return Response::error(409, "The data have been listed anew since the download began.");
        }
        return answer(Corrections(connection, partition->id, download->instance), *download, key, *page);
    });
    if (!instance.empty()) m_locks.noteActivity(user.id, instance);
    return response;
}

template <class Source>
Response DownloadEndpoint::answer(Source source, const Download& download, const std::string& key, std::int64_t page) {
    const auto known = placeOf(key, page);
    NewsPosition position = known ? *known : source.skip((page - 1) * download.page);
    std::string text;
    text.reserve(static_cast<std::size_t>(std::min<std::int64_t>(download.page, 1000)) * bytesOfTransaction);
    JSONWriter writer(text);
    writer.beginObject();
    writer.key("new_xactions");
    writer.beginArray();
    source.write(writer, position, download.page);
    writer.endArray();
    writer.endObject();
    keepPlace(key, {page + 1, position});
    return Response::json(std::move(text));
}

std::optional<NewsPosition> DownloadEndpoint::placeOf(const std::string& identifier, std::int64_t page) {
    std::lock_guard guard(m_mutex);
    auto found = m_byIdentifier.find(identifier);
    if (found == m_byIdentifier.end() || found->second->second.page != page) return std::nullopt;
    return found->second->second.position;
}

void DownloadEndpoint::keepPlace(const std::string& identifier, const Place& place) {
    std::lock_guard guard(m_mutex);
    if (auto found = m_byIdentifier.find(identifier); found != m_byIdentifier.end()) {
        found->second->second = place;
        m_places.splice(m_places.begin(), m_places, found->second);
        return;
    }
    m_places.emplace_front(identifier, place);
    m_byIdentifier.emplace(identifier, m_places.begin());
    if (m_places.size() <= mostPlaces) return;
    m_byIdentifier.erase(m_places.back().first);
    m_places.pop_back();
}

}  // namespace velkor::service
