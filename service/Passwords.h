#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velkor::service {

/// What a client's basic authentication names.
struct Credentials {
    std::string email;
    std::string password;  // bytes, in the cut form in which clients send it
};

/// Clients cut the UTF-8 form of "email:password" at its number of UTF-16 code units, so with text outside ASCII the last bytes
/// are missing. The credentials as they will arrive; none when nothing of the password would.
std::optional<Credentials> cutCredentials(std::string_view email, std::string_view password);

/// The credentials of an "Authorization" header's value, as they came; none when it is no basic authentication.
std::optional<Credentials> credentialsFromHeader(std::string_view authorization);

/// A salted scrypt hash as text. Takes tens of milliseconds and 16 MiB.
std::string hashPassword(std::string_view password);
/// Whether the hash is this password's; takes as long as hashing, in a time that tells nothing about how much of it fits.
bool verifyPassword(std::string_view password, std::string_view hash);

}  // namespace velkor::service
