#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velkor::service {

/// Reads a multipart form whose last part is the file, in pieces of any size. The file's content is handed on as views into the
/// pieces. It ends where the form's closing line stands at the end of the body, so a file may hold anything, the boundary too.
class MultipartForm {
public:
    /// `length` is the whole body's.
    MultipartForm(std::string_view contentType, std::uint64_t length);

    /// Takes the next piece; `content` is what of it belongs to the file. False when the body is no such form.
    bool take(std::string_view bytes, std::string_view& content);
    /// The end of the file's content, behind the last piece; none when the closing line is missing.
    std::optional<std::string_view> finish() const;

    /// Whether all fields are there and the file's content has begun.
    bool isAtFile() const { return m_atFile; }
    /// Bytes of content at most.
    std::uint64_t fileSize() const;
    /// The field's value; none when the form lacks it.
    std::optional<std::string_view> field(std::string_view name) const;

private:
    /// Reads fields from the head until the file's part begins or more is needed; false for what is no form.
    bool readHead();

    std::string m_delimiter;  // "--" and the boundary
    std::uint64_t m_length, m_taken = 0;
    std::string m_head;      // of the body, up to the file's content
    std::size_t m_part = 0;  // where in it the part at hand begins
    bool m_atFile = false;
    std::string m_tail;  // the last bytes of the body: the closing line, perhaps with the last bytes of the content before it
    std::vector<std::pair<std::string, std::string>> m_fields;
};

}  // namespace velkor::service
