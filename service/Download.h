#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "service/Accounts.h"
#include "service/Locks.h"
#include "service/NewTransactions.h"
#include "service/Partition.h"

namespace velkor::service {

/// What the identifier of a batched download names, so that any process can serve any page.
struct Download {
    enum class Kind { changes, listing };

    Kind kind = Kind::changes;
    std::int64_t partition = 0;
    std::int64_t instance = 0;
    std::int64_t above = 0;    // what the instance knows ends here; the number of a listing's answer
    std::int64_t highest = 0;  // the partition's highest number and epoch at issue
    std::int64_t epoch = 0;
    std::int64_t page = 0;  // transactions a page

    /// Letters, digits and hyphens.
    std::string identifier() const;
    static std::optional<Download> parse(std::string_view identifier);
};

/// GET users/ID/batchdownload.json: one page of a batched download. Any thread.
class DownloadEndpoint {
public:
    DownloadEndpoint(Database& database, Locks& locks) : m_database(database), m_locks(locks) {}

    Response handle(const User& user, std::string_view page, std::string_view identifier);

private:
    struct Place {
        std::int64_t page;  // the next one
        NewsPosition position;
    };

    /// The answer with the page, read from the news or the corrections.
    template <class Source>
    Response answer(Source source, const Download& download, const std::string& key, std::int64_t page);
    std::optional<NewsPosition> placeOf(const std::string& identifier, std::int64_t page);
    void keepPlace(const std::string& identifier, const Place& place);

    Database& m_database;
    Locks& m_locks;
    std::mutex m_mutex;                                 // guards the rest
    std::list<std::pair<std::string, Place>> m_places;  // of downloads under way, the latest first
    std::unordered_map<std::string, decltype(m_places)::iterator> m_byIdentifier;
};

}  // namespace velkor::service
