#include "Sync/VLKReceivedPayload.h"

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/Exception.h"

namespace velkor {

namespace {

/// UTF-8 bytes of the last character of a text that is not empty.
std::size_t lastCharacterLength(std::string_view text) noexcept {
    std::size_t length = 1;
    while (length < 4 && length < text.size() && (static_cast<unsigned char>(text[text.size() - length]) & 0xC0) == 0x80)
        ++length;
    return length;
}

std::size_t firstCharacterLength(std::string_view text) noexcept {
    std::size_t length = 1;
    while (length < 4 && length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) ++length;
    return length;
}

/// A scratch buffer that one huge payload has grown is given back.
void keepSmall(std::string& scratch) {
    constexpr std::size_t limit = 1 << 20;
    if (scratch.capacity() > limit) std::string().swap(scratch);
    scratch.clear();
}

}  // namespace

std::optional<std::string_view> withoutWrappingCharacters(std::string_view text) {
    if (text.empty()) throw NS::Exception(NS::RangeException, "The text has no first and last character to drop.");
    const std::size_t first = firstCharacterLength(text), last = lastCharacterLength(text);
    if (first == text.size()) {  // one character: two code units when it takes four bytes
        if (first < 4) throw NS::Exception(NS::RangeException, "The text has no first and last character to drop.");
        return std::string_view();
    }
    if (first == 4 || last == 4) return std::nullopt;
    return text.substr(first, text.size() - first - last);
}

VLKReceivedPayload VLKReceivedPayload::decode(std::optional<std::string_view> text) {
    VLKReceivedPayload payload;
    if (!text) (void)dataWithBase64EncodedString(std::nullopt);  // raises
    const auto base64 = withoutWrappingCharacters(*text);
    if (!base64) return payload;
    thread_local std::string deflated, json;
    keepSmall(deflated);
    keepSmall(json);
    if (!appendBase64Decoding(deflated, *base64) || !appendZlibInflate(json, deflated)) return payload;
    payload.hasData = true;
    payload.object = CJSONDeserializer::deserializer().deserializeAsDictionary(std::string_view(json), nullptr);
    if (VLKLog::sharedInstance().isLoggingEnabledOfType(400)) payload.text = json;
    return payload;
}

}  // namespace velkor
