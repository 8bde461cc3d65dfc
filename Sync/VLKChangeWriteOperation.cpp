#include "Sync/VLKChangeWriteOperation.h"

#include <utility>

#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKBlobDownloads.h"
#include "Sync/VLKPageReplay.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor {

using namespace NS;

VLKChangeWriteOperation::VLKChangeWriteOperation(Dictionary result, VLKContextCreator contextCreator, std::string velkorSyncURL,
                                                 std::string userEmail, std::string userPassword, std::string appId)
    : m_resultDict(std::move(result)),
      m_jsonData(VLKAnswer::array(m_resultDict, "new_xactions")),
      m_ctxCreator(std::move(contextCreator)),
      m_downloads(std::make_unique<VLKBlobDownloads>(
          VLKBlobDownloads::Service{std::move(velkorSyncURL), std::move(appId), std::move(userEmail), std::move(userPassword)},
          m_errors)) {}

VLKChangeWriteOperation::~VLKChangeWriteOperation() = default;

void VLKChangeWriteOperation::main() {
    if (m_jsonData.empty()) return;
    try {
        writeAnswer();
    } catch (const StoreReadFailure& failure) {
        // What could not be read was not written, and must come again.
        abandon(failure.error());
    } catch (const Exception& exception) {
        report(exception);
    } catch (const std::exception& exception) {
        report(Exception(InternalInconsistencyException, exception.what()));
    }
}

void VLKChangeWriteOperation::writeAnswer() {
    VLKLog& log = VLKLog::sharedInstance();
    if (!makeContext()) {
        // The host has closed its store: what came was not written, and must come again.
        log.logMessageAtLevel(100, "There is no context to write the changes of the server with.");
        m_storeFailed = true;
        return tellDelegate();
    }
    const auto transactions = convertJSONToTransactions(m_jsonData);
    log.logMessageAtLevel(300, "Processing %ld transactions.", transactions.size());
    if (const auto replayed = VLKPageReplay(*m_ctx, transactions).run(); !replayed) {
        return abandon(replayed.error());
    }
    log.logMessageAtLevel(300, "Attempting to download blobs...");
    m_downloads->schedule(transactions);
    if (!m_downloads->run()) return m_ctx->rollback();
    finishedProcessing();
    log.logMessageAtLevel(300, "Finished processing transactions");
}

bool VLKChangeWriteOperation::makeContext() {
    auto context = m_ctxCreator ? m_ctxCreator() : nullptr;
    if (!context) return false;
    context->setAuthor(std::string(VLKSyncAuthor));
    std::lock_guard lock(m_mutex);
    m_ctx = std::move(context);
    return true;
}

std::vector<std::shared_ptr<VLKTransaction>> VLKChangeWriteOperation::convertJSONToTransactions(const Array& entries) const {
    std::vector<std::shared_ptr<VLKTransaction>> transactions;
    transactions.reserve(entries.size());
    for (const Value& entry : entries) {
        const Dictionary* element = entry.asDictionary();
        const Dictionary* transaction = element ? (*element)["transaction"].asDictionary() : nullptr;
        if (!transaction) VLKLog::sharedInstance().logMessageAtLevel(100, "An element of new_xactions holds no transaction.");
        transactions.push_back(VLKTransaction::transactionFromJSONDictionary(transaction ? *transaction : Dictionary(), ctx()));
    }
    return transactions;
}

void VLKChangeWriteOperation::finishedProcessing() {
    if (failed()) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "Too many errors. Rolling back the sync.");
        m_ctx->rollback();
    } else if (const auto saved = m_ctx->save(); !saved) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to save the changes of the server: %@", saved.error());
        if (m_keepsEveryChange) failWith(saved.error());
    }
    tellDelegate();
}

void VLKChangeWriteOperation::abandon(const Error& error) {
    VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to look for the objects of received transactions: %@", error);
    failWith(error);
    m_ctx->rollback();
    tellDelegate();
}

void VLKChangeWriteOperation::failWith(const Error& storeError) {
    m_errors.push_back(storeError);
    m_storeFailed = true;
}

void VLKChangeWriteOperation::tellDelegate() {
    if (!m_delegate) return;
    OperationQueue::mainQueue().addOperation([self = std::static_pointer_cast<VLKChangeWriteOperation>(shared_from_this())] {
        if (VLKChangeWriteOperationDelegate* delegate = self->delegate())
            delegate->changeWriteOperationFinishedWritingData(*self);
    });
}

void VLKChangeWriteOperation::report(const Exception& exception) const {
    systemLog("Exception occurred in a background thread.");
    systemLog(format("Name: %@", exception.name()));
    systemLog(format("Reason: %@", exception.reason()));
    systemLog(format("%@", exception.callStackSymbols()));
    systemLog(format("User Info: %@", exception.userInfo()));
    systemLog(format("The JSON Data being converted: %@", m_resultDict));
}

void VLKChangeWriteOperation::cancel() {
    Operation::cancel();
    m_downloads->cancel();
}

bool VLKChangeWriteOperation::failed() const noexcept { return m_downloads->failed() || m_storeFailed; }

std::int64_t VLKChangeWriteOperation::numberOfErrors() const noexcept { return m_downloads->numberOfErrors(); }

std::shared_ptr<ManagedObjectContext> VLKChangeWriteOperation::ctx() const {
    std::lock_guard lock(m_mutex);
    return m_ctx;
}

std::int64_t VLKChangeWriteOperation::downloadCount() const noexcept { return m_downloads->downloadCount(); }

std::int64_t VLKChangeWriteOperation::totalDownloadCount() const noexcept { return m_downloads->totalDownloadCount(); }

Observable& VLKChangeWriteOperation::progress() noexcept { return m_downloads->progress(); }

}  // namespace velkor
