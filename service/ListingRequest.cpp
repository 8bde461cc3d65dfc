#include "service/ListingRequest.h"

#include "PelmoLib/encodings/VLKLog.h"
#include "service/ChangesRequest.h"

namespace velkor::service {
namespace {

bool mayBeGuid(std::string_view text) { return !text.empty() && text.size() <= longestName && text.find('\0') == text.npos; }

}  // namespace

std::optional<ListingRequest> ListingRequest::read(std::string_view json) {
    ListingRequest request(json);
    if (!request.readMembers()) return std::nullopt;
    return request;
}

bool ListingRequest::readMembers() {
    bool hasGuids = false;
    m_app = missingAppId;
    std::string_view key, app;
    for (m_cursor->enterObject(); m_cursor->nextMember(key);) {
        if (key == "allObjects") {
            if (!readGuids()) return false;
            hasGuids = true;
        } else if (key == "app_id" && m_cursor->peek() == '"') {
            if (!m_cursor->string(app)) return false;
            m_app = app;
        } else {
            m_cursor->skip();
        }
    }
    return hasGuids && m_cursor->end() && m_app.size() <= longestName && m_app.find('\0') == m_app.npos;
}

bool ListingRequest::readGuids() {
    m_guids.clear();
    std::size_t skipped = 0;
    if (!m_cursor->enterArray()) return false;
    for (std::string_view guid; m_cursor->nextElement();) {
        if (m_cursor->peek() != '"' || !m_cursor->string(guid)) return false;
        if (mayBeGuid(guid)) {
            m_guids.push_back(guid);
        } else {
            ++skipped;
        }
    }
    if (skipped > 0) VLKLog::sharedInstance().logMessageAtLevel(100, "Skipped %ld guids of a listing.", skipped);
    return m_cursor->ok();
}

}  // namespace velkor::service
