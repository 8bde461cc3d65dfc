#include "service/MultipartForm.h"

#include "tests/service/BlobClient.h"

namespace velkor::service {
namespace {

/// What reading the body in pieces of that size gives: the content, or nothing.
std::optional<std::string> contentOf(const std::string& type, const std::string& body, std::size_t piece,
                                     std::string* field = nullptr) {
    MultipartForm form(type, body.size());
    std::string whole;
    std::string_view content;
    for (std::size_t at = 0; at < body.size(); at += piece) {
        if (!form.take(std::string_view(body).substr(at, piece), content)) return std::nullopt;
        whole += content;
    }
    const auto rest = form.finish();
    if (!rest) return std::nullopt;
    if (field) *field = form.field("key").value_or("none");
    EXPECT_LE(whole.size() + rest->size(), form.fileSize());
    return whole + std::string(*rest);
}

TEST(MultipartFormTest, contentsAndPieces) {
    const std::vector<std::string> contents{"",
                                            "x",
                                            "\r\n",
                                            "--0xKhTmLbOuNdArY--",
                                            "\r\n--0xKhTmLbOuNdArY--",
                                            "\r\n--0xKhTmLbOuNdArY\r\n",
                                            std::string(3000, '\0'),
                                            "ends with a line\r\n"};
    for (const auto& content : contents) {
        const std::string body = uploadBody({{"key", "v"}, {"other", "a\r\nb"}}, content);
        for (const std::size_t piece : {1, 2, 7, 64, 100'000}) {
            std::string key;
            EXPECT_EQ(contentOf(formType, body, piece, &key), content) << piece;
            EXPECT_EQ(key, "v");
            EXPECT_EQ(contentOf(formType, body + "\r\n", piece), content) << piece;
        }
    }
}

TEST(MultipartFormTest, typesAndBodies) {
    const std::string good = uploadBody({{"key", "v"}}, "content");
    struct Case {
        std::string type, body;
        bool isForm;
    };
    const std::string lower = "--b\r\ncontent-disposition: form-data; filename=\"x; y\"; name=file\r\n\r\ncontent\r\n--b--";
    const std::vector<Case> cases{
        {formType, good, true},
        {"Multipart/Form-Data; charset=utf-8; Boundary=\"0xKhTmLbOuNdArY\"", good, true},
        {"multipart/form-data; boundary=b", lower, true},
        {"multipart/form-data", good, false},
        {"multipart/form-data; boundary=", good, false},
        {"multipart/form-data; boundary=" + std::string(71, 'b'), good, false},
        {"multipart/form-data; boundary=other", good, false},
        {"", good, false},
        {formType, "", false},
        {formType, good.substr(0, good.size() - 1), false},
        {formType, good.substr(1), false},
        {formType, "--0xKhTmLbOuNdArY--", false},
        {formType, "--0xKhTmLbOuNdArY\r\n\r\n\r\nx\r\n--0xKhTmLbOuNdArY--", false},
        {formType, uploadBody({{"key", std::string(40'000, 'x')}}, ""), false},
        {formType, uploadBody(std::vector<std::pair<std::string, std::string>>(33, {"key", "v"}), ""), false},
    };
    for (const auto& [type, body, isForm] : cases) {
        EXPECT_EQ(contentOf(type, body, 1000), isForm ? std::optional<std::string>("content") : std::nullopt)
            << type << ' ' << body.substr(0, 80);
    }
}

}  // namespace
}  // namespace velkor::service
