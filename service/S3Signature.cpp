#include "service/S3Signature.h"

#include <ctime>
#include <map>

#include "PelmoLib/encodings/NSData_Base64.h"
#include "json/JSONWriter.h"
#include "service/Signing.h"

namespace velkor::service {
namespace {

constexpr std::string_view algorithm = "AWS4-HMAC-SHA256";

std::string utcText(std::int64_t milliseconds, const char* pattern) {
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[64];
    return {text, std::strftime(text, sizeof text, pattern, &parts)};
}

std::string escaped(std::string_view text, std::string_view unescaped) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
                           c == '_' || c == '~' || unescaped.find(c) != unescaped.npos;
        if (plain) {
            result += c;
        } else {
            result += {'%', digits[static_cast<unsigned char>(c) >> 4], digits[c & 15]};
        }
    }
    return result;
}

std::string scopeOf(const S3Account& account, std::string_view day) {
    return std::string(day) + '/' + account.region + "/s3/aws4_request";
}

}  // namespace

std::string s3EscapedPath(std::string_view path) { return escaped(path, "/"); }

std::string s3Signature(const S3Account& account, std::string_view day, std::string_view text) {
    std::string key = hmacSHA256("AWS4" + account.secretKey, day);
    for (const std::string_view part :
         {std::string_view(account.region), std::string_view("s3"), std::string_view("aws4_request")}) {
        key = hmacSHA256(key, part);
    }
    return hexadecimal(hmacSHA256(key, text));
}

std::string presignedS3Query(const S3Account& account, std::string_view method, std::string_view host, std::string_view path,
                             std::int64_t now, std::int64_t seconds) {
    const std::string time = utcText(now, "%Y%m%dT%H%M%SZ"), day = time.substr(0, 8), scope = scopeOf(account, day);
    // Already in the order of their names.
    std::string query = "X-Amz-Algorithm=" + std::string(algorithm);
    query += "&X-Amz-Credential=" + escaped(account.accessKey + '/' + scope, "");
    query += "&X-Amz-Date=" + time;
    query += "&X-Amz-Expires=" + std::to_string(seconds);
    query += "&X-Amz-SignedHeaders=host";

    std::string request(method);
    request += '\n' + s3EscapedPath(path) + '\n' + query + "\nhost:";
    request += host;
    request += "\n\nhost\nUNSIGNED-PAYLOAD";
    const std::string text = std::string(algorithm) + '\n' + time + '\n' + scope + '\n' + hexadecimal(sha256(request));
    return query + "&X-Amz-Signature=" + s3Signature(account, day, text);
}

std::vector<std::pair<std::string, std::string>> presignedS3Form(const S3Account& account, std::string_view bucket,
                                                                 std::string_view key, std::int64_t now, std::int64_t seconds,
                                                                 std::uint64_t maximumSize) {
    const std::string time = utcText(now, "%Y%m%dT%H%M%SZ"), day = time.substr(0, 8);
    std::vector<std::pair<std::string, std::string>> fields{{"key", std::string(key)},
                                                            {"x-amz-algorithm", std::string(algorithm)},
                                                            {"x-amz-credential", account.accessKey + '/' + scopeOf(account, day)},
                                                            {"x-amz-date", time}};
    std::string policy;
    JSONWriter writer(policy);
    writer.beginObject();
    writer.key("expiration");
    writer.plainString(utcText(now + seconds * 1000, "%Y-%m-%dT%H:%M:%S.000Z"));
    writer.key("conditions");
    writer.beginArray();
    auto condition = [&](std::string_view name, std::string_view value) {
        writer.beginObject();
        writer.member(name, value);
        writer.endObject();
    };
    condition("bucket", bucket);
    for (const auto& [name, value] : fields) condition(name, value);
    writer.beginArray();
    writer.plainString("content-length-range");
    writer.number(0);
    writer.number(maximumSize);
    writer.endArray();
    writer.endArray();
    writer.endObject();

    fields.emplace_back("policy", base64Encoding(policy));
    fields.emplace_back("x-amz-signature", s3Signature(account, day, fields.back().second));
    return fields;
}

}  // namespace velkor::service
