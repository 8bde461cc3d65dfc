#include "platform/base/Error.h"

#include "platform/base/Format.h"

namespace velkor::NS {

struct Error::Content {
    std::string domain;
    std::int64_t code;
    Dictionary userInfo;
};

Error::Error(std::string_view domain, std::int64_t code, Dictionary userInfo)
    : m_content(std::make_shared<const Content>(Content{std::string(domain), code, std::move(userInfo)})) {}

Error Error::withDescription(std::string_view domain, std::int64_t code, std::string_view text) {
    return Error(domain, code, Dictionary{{LocalizedDescriptionKey, text}});
}

const std::string& Error::domain() const noexcept { return m_content->domain; }
std::int64_t Error::code() const noexcept { return m_content->code; }
const Dictionary& Error::userInfo() const noexcept { return m_content->userInfo; }

std::string Error::localizedDescription() const {
    if (const auto text = userInfo()[LocalizedDescriptionKey].asString()) return std::string(*text);
    return format("The operation couldn't be completed. (%@ error %lld.)", domain(), code());
}

std::string Error::description() const {
    std::string text = format("Error Domain=%@ Code=%lld \"%@\"", domain(), code(), localizedDescription());
    if (!userInfo().empty()) text += " UserInfo=" + userInfo().description();
    return text;
}

bool Error::operator==(const Error& other) const noexcept {
    return m_content == other.m_content ||
           (domain() == other.domain() && code() == other.code() && userInfo() == other.userInfo());
}

}  // namespace velkor::NS
