#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"

namespace velkor::NS {

/// Key of the user info under which an error's text for people stands.
inline constexpr std::string_view LocalizedDescriptionKey = "NSLocalizedDescription";
/// Domain and codes of errors made by the platform layer itself (files, sockets, property lists, the object store).
inline constexpr std::string_view PlatformErrorDomain = "org.velkor.platform.ErrorDomain";
/// Domain of errors of the library proper; code 404 means "no such object".
inline constexpr std::string_view VelkorErrorDomain = "org.velkor.sync.ErrorDomain";
/// Domain of transport errors; the code is the HTTP status, or negative for a failure below HTTP (see URLConnection).
inline constexpr std::string_view NetworkErrorDomain = "org.velkor.sync.NetworkErrorDomain";

/// What went wrong: a domain, a code within it and a user info. A value; copies share their content.
class [[nodiscard]] VELKOR_EXPORT Error {
public:
    Error(std::string_view domain, std::int64_t code, Dictionary userInfo = {});
    /// An error whose user info holds just the text for people.
    static Error withDescription(std::string_view domain, std::int64_t code, std::string_view text);

    const std::string& domain() const noexcept;
    std::int64_t code() const noexcept;
    const Dictionary& userInfo() const noexcept;
    /// The user info's text for people, else "The operation couldn't be completed. (DOMAIN error CODE.)".
    std::string localizedDescription() const;
    std::string description() const;
    bool operator==(const Error& other) const noexcept;

private:
    struct Content;
    std::shared_ptr<const Content> m_content;
};

/// Place for an error that a caller may want; null when it does not.
using ErrorOut = std::optional<Error>*;
inline void setError(ErrorOut place, Error error) {
    if (place) *place = std::move(error);
}

}  // namespace velkor::NS
