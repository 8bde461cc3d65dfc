#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json/JSONCursor.h"

namespace velkor::service {

/// A client's list of the guids that it holds, read without the database. It refers to the request's text, which lives as long.
class ListingRequest {
public:
    /// None for a text that is no listing.
    static std::optional<ListingRequest> read(std::string_view json);

    const std::string& app() const { return m_app; }
    /// In the client's order, duplicates included; what can be no object's guid is left out.
    const std::vector<std::string_view>& guids() const { return m_guids; }

private:
    explicit ListingRequest(std::string_view json) : m_cursor(std::make_unique<JSONCursor>(json)) {}
    bool readMembers();
    bool readGuids();

    std::unique_ptr<JSONCursor> m_cursor;  // keeps texts that had escapes
    std::string m_app;
    std::vector<std::string_view> m_guids;
};

}  // namespace velkor::service
