#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace notes {

/// The account that this installation uses, kept in account.json (mode 0600).
struct Account {
    std::string email;
    std::string password;
    std::string server;
    std::optional<std::string> apiKey;
};

/// None when there is no file. Raises CommandError for a file that cannot be read as an account.
std::optional<Account> readAccount(const std::filesystem::path& file);
void writeAccount(const Account& account, const std::filesystem::path& file);
void removeAccount(const std::filesystem::path& file);

}  // namespace notes
