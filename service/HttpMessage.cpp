#include "service/HttpMessage.h"

#include "json/JSONWriter.h"

namespace velkor::service {

Response Response::empty(int status) {
    Response response;
    response.status = status;
    response.body.clear();
    response.isBytes = true;
    return response;
}

Response Response::bytes(std::shared_ptr<const BodyFile> file) {
    Response response = empty(200);
    response.file = std::move(file);
    return response;
}

Response Response::error(int status, std::string_view text) {
    Response response;
    response.status = status;
    response.body.clear();
    JSONWriter writer(response.body);
    writer.beginObject();
    writer.key("error");
    writer.string(text);
    writer.endObject();
    return response;
}

}  // namespace velkor::service
