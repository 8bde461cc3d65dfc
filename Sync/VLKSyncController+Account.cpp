// Account and administration commands: one request each.
#include <utility>

#include "PelmoLib/encodings/NSString+URLEncode.h"
#include "Sync/VLKSyncController+Internal.h"
#include "json/CJSONSerializer.h"
#include "platform/url/CookieStorage.h"

namespace velkor {

namespace {

constexpr std::int64_t noContent = 204;

void answer(const VLKResultCallback& callback, bool success, const std::optional<NS::Error>& error = std::nullopt) {
    if (callback) callback(success, error);
}

NS::MutableURLRequest deletion(std::string url) {
    NS::MutableURLRequest request(std::move(url));
    request.setHTTPMethod("DELETE");
    return request;
}

}  // namespace

// --- Sign-up, login, logout ---

void VLKSyncController::signupWithEmailAddress(std::string emailAddress, std::string password, VLKResultCallback callback) {
    const NS::Dictionary user{{"email", emailAddress}, {"password", password}, {"password_confirmation", password}};
    std::optional<NS::Error> unwritable;
    const auto json = CJSONSerializer::serializer().serializeDictionary({{"user", user}}, &unwritable);
    if (!json) {
        logMessage(100, "VLK Error: %@ while signing up.", unwritable);
        return m_internals->onMainQueue([callback, unwritable] { answer(callback, false, unwritable); });
    }
    const auto command =
        m_internals->commandFor(m_internals->timed(postRequestForURLWithJSON(m_serverUrl + "/users.json", *json)));
    command->setCompletionBlock([this, emailAddress, password, callback](const NS::Dictionary&) {
        setEmailAddress(emailAddress);
        setUserPassword(password);
        answer(callback, true);
    });
    command->setFailureBlock([callback](const NS::Error& error) {
        logMessage(100, "VLK Error: %@ while signing up.", error);
        answer(callback, false, error);
    });
    m_internals->commands.start(command);
}

void VLKSyncController::loginWithEmailAddress(std::string emailAddress, std::string password, VLKResultCallback callback) {
    setEmailAddress(std::move(emailAddress));
    setUserPassword(std::move(password));
    m_loginCallback = callback;
    lockWithContinuation(
        [this, callback] {
            unlock();
            answer(callback, true);
        },
        [callback](const NS::Error& error) { answer(callback, false, error); });
}

void VLKSyncController::logout() { logoutWithCallback(nullptr); }

void VLKSyncController::logoutWithCallback(VLKResultCallback callback) {
    const auto command = m_internals->commandFor(m_internals->authenticated(deletion(m_serverUrl + "/users/sign_out.json")));
    if (callback) {
        command->setCompletionBlock([callback](const NS::Dictionary&) { callback(true, std::nullopt); });
        command->setFailureBlock([callback](const NS::Error& error) {
            if (error.code() == noContent) return callback(true, std::nullopt);
            logMessage(100, "VLK Error: %@ while logging out.", error);
            callback(false, error);
        });
    }
    m_internals->commands.start(command);
    NS::CookieStorage::sharedStorage().deleteSessionCookiesForURL(m_serverUrl);
    ++m_internals->logouts;
    m_internals->forgetPendingChanges();
    setUserId({});
    setEmailAddress(std::nullopt);
    setUserPassword(std::nullopt);
}

// --- The other commands ---

void VLKSyncController::deleteAllDataFromServerWithCallback(VLKResultCallback callback) {
    const auto url = NS::format("%@/client_apps/%@/users/%@/delete_all_data.json", m_serverUrl, m_appId, m_emailAddress);
    m_internals->runAccountCommand(m_internals->authenticated(deletion(url)), std::move(callback));
}

void VLKSyncController::changePasswordFrom(const std::string& oldPassword, const std::string& newPassword,
                                           VLKResultCallback callback) {
    const NS::Dictionary form{{"old_password", simpleUrlEncode(oldPassword)}, {"new_password", simpleUrlEncode(newPassword)}};
    auto request = postRequestForURLParams(m_serverUrl + "/users/change_password.json", form);
    m_internals->runAccountCommand(m_internals->authenticated(std::move(request)), std::move(callback));
}

void VLKSyncController::sendPasswordResetForEmail(const std::string& emailAddress, VLKResultCallback callback) {
    auto request = m_internals->timed(
        NS::MutableURLRequest(NS::format("%@/users/send_password_reset.json?email=%@", m_serverUrl, emailAddress)));
    logMessage(300, "%@", request);
    m_internals->runAccountCommand(std::move(request), std::move(callback));
}

void VLKSyncController::deleteUserWithCallback(VLKResultCallback callback) {
    m_internals->runAccountCommand(m_internals->authenticated(deletion(m_serverUrl + "/users/account.json")),
                                   std::move(callback));
}

void VLKSyncController::rollbackWithCompletionHandler(VLKResultCallback callback) {
    auto request =
        postRequestForURLParams(m_serverUrl + "/transactions/rollback.json", {{"instance_id", NS::describe(m_instanceId)}});
    m_internals->runAccountCommand(m_internals->authenticated(std::move(request)), std::move(callback));
}

void VLKSyncController::sendClientInfo(const NS::Dictionary& info, VLKResultCallback callback) {
    std::optional<NS::Error> unwritable;
    const auto json = CJSONSerializer::serializer().serializeDictionary(info, &unwritable);
    if (!json) return m_internals->onMainQueue([callback, unwritable] { answer(callback, false, unwritable); });
    const NS::Dictionary form{{"instance_id", NS::describe(m_instanceId)}, {"client_info", *json}};
    auto request = postRequestForURLParams(m_serverUrl + "/clientinfo.json", form);
    m_internals->runAccountCommand(m_internals->authenticated(std::move(request)), std::move(callback));
}

void VLKSyncController::getRegisteredClients(std::function<void(const NS::Value&, const std::optional<NS::Error>&)> callback) {
    const auto command =
        m_internals->commandFor(m_internals->authenticated(NS::MutableURLRequest(m_serverUrl + "/clientinfo.json")));
    if (callback) {
        command->setCompletionBlock(
            [callback](const NS::Dictionary& result) { callback(result["registered_clients"], std::nullopt); });
        command->setFailureBlock([callback](const NS::Error& error) { callback({}, error); });
    }
    m_internals->commands.start(command);
}

void VLKSyncController::webCommandCompletedWithResult(JSONWebCommand&, const NS::Dictionary&) {}

void VLKSyncController::webCommandFailedWithError(JSONWebCommand&, const NS::Error&) {}

// --- Requests ---

NS::MutableURLRequest VLKSyncController::Internals::timed(NS::MutableURLRequest request) const {
    request.setTimeoutInterval(self.m_requestTimeout);
    return request;
}

NS::MutableURLRequest VLKSyncController::Internals::authenticated(NS::MutableURLRequest request) const {
    request = timed(std::move(request));
    addAuthenticationForUsername(request, NS::describe(self.m_emailAddress), NS::describe(self.m_userPassword));
    return request;
}

std::shared_ptr<JSONWebCommand> VLKSyncController::Internals::commandFor(NS::MutableURLRequest request) {
    return std::make_shared<JSONWebCommand>(std::move(request));
}

std::uint32_t VLKSyncController::Internals::beginInterruptibleOperation(const std::shared_ptr<JSONWebCommand>& command) const {
    return self.beginBackgroundOpWithHandler([&controller = self, weak = std::weak_ptr(command)] {
        if (const auto running = weak.lock()) running->cancel();
        controller.resetBatch();
        controller.save();
    });
}

void VLKSyncController::Internals::runAccountCommand(NS::MutableURLRequest request, VLKResultCallback callback) {
    const auto command = commandFor(std::move(request));
    command->setCompletionBlock([callback](const NS::Dictionary&) { answer(callback, true); });
    command->setFailureBlock([callback](const NS::Error& error) { answer(callback, false, error); });
    commands.start(command);
}

}  // namespace velkor
