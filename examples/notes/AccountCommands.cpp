// Commands about the user's account at the service.
#include <VelkorSync/RunLoop.h>
#include <VelkorSync/UTF8.h>

#include <functional>
#include <iostream>
#include <memory>

#include "examples/notes/Command.h"
#include "examples/notes/Cycle.h"
#include "examples/notes/Dump.h"

namespace notes {

using namespace velkor;

namespace {

/// Starts an account command and waits for its callback; a second call of the callback is not told again. Raises CommandError.
void waitFor(const std::function<void(VLKResultCallback)>& start, const char* what) {
    struct Outcome {
        bool answered = false;
        std::optional<NS::Error> failure;
    };
    auto outcome = std::make_shared<Outcome>();  // a late second report still finds it
    start([outcome](bool success, const std::optional<NS::Error>& error) {
        if (outcome->answered) return;
        outcome->answered = true;
        if (!success)
            outcome->failure =
                error ? *error : NS::Error::withDescription(NS::VelkorErrorDomain, 0, "the service gave no reason");
    });
    NS::RunLoop::main().runUntil([&] { return outcome->answered; }, -1);
    if (outcome->failure) throw CommandError(std::string(what) + " failed: " + outcome->failure->localizedDescription());
}

/// The password given, or the first line of standard input for "-".
std::string password(const std::string& argument) {
    if (argument != "-") return argument;
    std::string line;
    if (!std::getline(std::cin, line)) throw CommandError("no password on standard input");
    return line;
}

void signUp(Installation& installation, const Arguments& arguments) {
    std::string email = arguments[0], secret = password(arguments[1]);
    waitFor([&](VLKResultCallback done) { installation.controller().signupWithEmailAddress(email, secret, std::move(done)); },
            "signup");
    installation.keepAccount(email, secret);
}

void logIn(Installation& installation, const Arguments& arguments) {
    std::string email = arguments[0], secret = password(arguments[1]);
    auto& controller = installation.controller();
    waitFor([&](VLKResultCallback done) { controller.loginWithEmailAddress(email, secret, std::move(done)); }, "login");
    controller.setLoginCallback(nullptr);
    NS::RunLoop::main().runUntil([&] { return cycleIsOver(controller); }, -1);
    installation.keepAccount(email, secret);
}

void logOut(Installation& installation, const Arguments&) {
    installation.useAccount();
    auto& controller = installation.controller();
    if (auto count = controller.changes().size()) {
        std::cerr << "velkor-notes: " << count << " pending changes are discarded\n";
    }
    std::optional<std::string> failure;
    try {
        waitFor([&](VLKResultCallback done) { controller.logoutWithCallback(std::move(done)); }, "logout");
    } catch (const CommandError& error) {
        failure = error.what();  // the credentials are gone here whatever the service says
    }
    controller.save();
    installation.forgetAccount();
    if (failure) throw CommandError(*failure);
}

void changePassword(Installation& installation, const Arguments& arguments) {
    installation.useAccount();
    std::string former = password(arguments[0]), secret = password(arguments[1]);
    auto& controller = installation.controller();
    waitFor([&](VLKResultCallback done) { controller.changePasswordFrom(former, secret, std::move(done)); }, "passwd");
    controller.setUserPassword(secret);
    installation.keepAccount(installation.requireAccount().email, secret);
}

void resetPassword(Installation& installation, const Arguments& arguments) {
    waitFor([&](VLKResultCallback done) { installation.controller().sendPasswordResetForEmail(arguments[0], std::move(done)); },
            "reset-password");
}

void deleteAccount(Installation& installation, const Arguments&) {
    installation.useAccount();
    waitFor([&](VLKResultCallback done) { installation.controller().deleteUserWithCallback(std::move(done)); }, "delete-account");
    installation.forgetAccount();
}

void deleteData(Installation& installation, const Arguments&) {
    installation.useAccount();
    waitFor([&](VLKResultCallback done) { installation.controller().deleteAllDataFromServerWithCallback(std::move(done)); },
            "delete-data");
}

void deleteBlobs(Installation& installation, const Arguments&) {
    installation.useAccount();
    waitFor([&](VLKResultCallback done) { installation.controller().deleteAllBlobsFromServerWithCallback(std::move(done)); },
            "delete-blobs");
}

void rollBack(Installation& installation, const Arguments&) {
    installation.useAccount();
    waitFor([&](VLKResultCallback done) { installation.controller().rollbackWithCompletionHandler(std::move(done)); },
            "rollback");
}

void registerClient(Installation& installation, const Arguments& arguments) {
    NS::Dictionary info;
    for (const auto& pair : arguments.positional()) {
        auto equals = pair.find('=');
        if (equals == 0 || equals == pair.npos) throw UsageError("register takes KEY=VALUE...");
        if (!NS::isValidUTF8(pair)) throw CommandError("a KEY=VALUE is not UTF-8");
        info.set(pair.substr(0, equals), pair.substr(equals + 1));
    }
    installation.useAccount();
    waitFor([&](VLKResultCallback done) { installation.controller().sendClientInfo(info, std::move(done)); }, "register");
}

void listClients(Installation& installation, const Arguments&) {
    installation.useAccount();
    NS::Value clients;
    waitFor(
        [&](VLKResultCallback done) {
            installation.controller().getRegisteredClients(
                [&clients, done](const NS::Value& answer, const std::optional<NS::Error>& error) {
                    clients = answer;
                    done(!error, error);
                });
        },
        "clients");
    std::cout << jsonText(clients ? clients : NS::Value(NS::Array())) << '\n';
}

}  // namespace

std::vector<Command> accountCommands() {
    return {
        {"signup", "EMAIL PASSWORD", "makes an account at the service and keeps it here", {}, 2, 2, signUp},
        {"login", "EMAIL PASSWORD", "uses an account that exists", {}, 2, 2, logIn},
        {"logout", "", "leaves the account; pending changes are discarded", {}, 0, 0, logOut},
        {"passwd", "OLD NEW", "changes the account's password", {}, 2, 2, changePassword},
        {"reset-password", "EMAIL", "asks the service for a password reset", {}, 1, 1, resetPassword},
        {"delete-account", "", "deletes the account at the service and forgets it here", {}, 0, 0, deleteAccount},
        {"delete-data", "", "deletes everything that the service holds of this account", {}, 0, 0, deleteData},
        {"delete-blobs", "", "deletes the contents of all attachments from the service", {}, 0, 0, deleteBlobs},
        {"rollback", "", "takes back what this installation sent last", {}, 0, 0, rollBack},
        {"register", "KEY=VALUE...", "tells the service about this installation", {}, 1, anyNumber, registerClient},
        {"clients", "", "prints what the account's installations told the service, as JSON", {}, 0, 0, listClients},
    };
}

}  // namespace notes
