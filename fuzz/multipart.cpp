// The body of an upload as anybody may send it, in pieces.
#include <cstdlib>
#include <string>
#include <string_view>

#include "service/MultipartForm.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using velkor::service::MultipartForm;
    if (size < 1) return 0;
    const std::size_t piece = data[0] % 64 + 1;
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
    auto read = [&](std::size_t step, std::string& whole) {
        MultipartForm form("multipart/form-data; boundary=b", body.size());
        std::string_view content;
        for (std::size_t at = 0; at < body.size(); at += step) {
            if (!form.take(body.substr(at, step), content)) return false;
            whole += content;
        }
        const auto rest = form.finish();
        if (!rest) return false;
        whole += *rest;
        if (whole.size() > form.fileSize()) std::abort();
        return true;
    };
    // The pieces make no difference.
    std::string inPieces, atOnce;
    if (read(piece, inPieces) != read(size, atOnce)) std::abort();
    if (!inPieces.empty() && !atOnce.empty() && inPieces != atOnce) std::abort();
    return 0;
}
