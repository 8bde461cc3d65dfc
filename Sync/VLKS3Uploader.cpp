#include "Sync/VLKS3Uploader.h"

#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSString+URLEncode.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKDataUploader.h"

namespace velkor {

VLKS3Uploader::VLKS3Uploader(std::string wsServerURL, std::string amazonURL, std::string appId, std::string guid,
                             std::string columnName)
    : VLKS3Transfer(std::move(wsServerURL), std::move(amazonURL), std::move(appId), std::move(guid), std::move(columnName)) {}

VLKS3Uploader::~VLKS3Uploader() = default;

void VLKS3Uploader::begin() {
    send(
        presigningRequest(endpointURL("write.json")), [this](const NS::Dictionary& answer) { upload(answer); },
        [this](const NS::Error& error) { failWithMessage("Error occurred uploading blob for %@ - %@: %@", error); });
}

void VLKS3Uploader::upload(const NS::Dictionary& answer) {
    const auto uploader = std::make_shared<VLKDataUploader>(VLKAnswer::text(answer, "url").value_or(""), data());
    m_signatureData = VLKAnswer::dictionary(answer, "signature");
    if (m_simulateFailure && m_signatureData) m_signatureData->set("signature", "FUXORS");
    uploader->setFormFields(m_signatureData);
    uploader->setCompletionBlock(whileCurrent(VLKDataUploader::CompletionBlock([this] {
        end();
        m_isStored = true;
        confirmWhenReady();
    })));
    uploader->setFailureBlock(whileCurrent(
        FailureBlock([this](const NS::Error& error) { failWithMessage("Error verifying blob upload for %@ - %@: %@", error); })));
    VLKLog::sharedInstance().logMessageAtLevel(300, "Uploading blob for: %@ - %@", guid(), colname());
    keep(uploader);
    computeHash();
    uploader->start();
}

// A large blob's digest takes a while: off the main thread, while the bytes travel. The last owner lets go of the uploader on
// the main thread all the same.
void VLKS3Uploader::computeHash() {
    m_hash.reset();
    m_isStored = false;
    auto computed = whileCurrent(HashBlock([this](const std::string& hash) {
        m_hash = hash;
        confirmWhenReady();
    }));
    m_hashingQueue.addOperation([data = data(), computed = std::move(computed)]() mutable {
        NS::OperationQueue::mainQueue().addOperation(
            [computed = std::move(computed), hash = sha1HexHash(data)] { computed(hash); });
    });
}

void VLKS3Uploader::confirmWhenReady() {
    if (!m_isStored || !m_hash) return;
    VLKLog::sharedInstance().logMessageAtLevel(300, "Hash size: %ld", m_hash->size());
    send(
        postRequestForURLParams(endpointURL("wrote.json"), {{"hash", simpleUrlEncode(*m_hash)}}),
        [this](const NS::Dictionary& confirmation) { complete(confirmation); }, [this](const NS::Error& error) { fail(error); });
}

void VLKS3Uploader::complete(const NS::Value& answer) {
    if (const auto block = m_completionBlock) block(answer);
}

void VLKS3Uploader::failWithMessage(std::string_view format, const NS::Error& error) {
    VLKLog::sharedInstance().logMessageAtLevel(100, format, guid(), colname(), error.localizedDescription());
    fail(error);
}

}  // namespace velkor
