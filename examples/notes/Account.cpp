#include "examples/notes/Account.h"

#include <VelkorSync/AtomicFile.h>
#include <VelkorSync/CJSONDeserializer.h>
#include <VelkorSync/CJSONSerializer.h>

#include <system_error>

#include "examples/notes/Options.h"

namespace notes {

using namespace velkor;

std::optional<Account> readAccount(const std::filesystem::path& file) {
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored)) return std::nullopt;
    auto bytes = NS::readFile(file, 1 << 20);
    if (!bytes.ok()) throw CommandError(bytes.error().localizedDescription());
    auto members = dictionaryWithJSONData(bytes.value(), nullptr);
    if (!members || !(*members)["email"].isString() || !(*members)["password"].isString() || !(*members)["server"].isString()) {
        throw CommandError(file.string() + " is damaged; log in again after removing it");
    }
    Account account{(*members)["email"].stringOr(""), (*members)["password"].stringOr(""), (*members)["server"].stringOr(""), {}};
    if (auto key = (*members)["api_key"].asString()) account.apiKey = std::string(*key);
    return account;
}

void writeAccount(const Account& account, const std::filesystem::path& file) {
    NS::Dictionary members{{"email", account.email}, {"password", account.password}, {"server", account.server}};
    if (account.apiKey) members.set("api_key", *account.apiKey);
    auto text = CJSONSerializer::serializer().serializeDictionary(members, nullptr);
    if (!text) throw CommandError("the account cannot be written as JSON");
    auto written = NS::writeFileAtomically(file, *text + "\n");
    if (!written.ok()) throw CommandError(written.error().localizedDescription());
}

void removeAccount(const std::filesystem::path& file) {
    std::error_code error;
    std::filesystem::remove(file, error);
    if (error) throw CommandError("cannot remove " + file.string() + ": " + error.message());
}

}  // namespace notes
