#include "runtime_endpoint.h"

#include "runtime_data_hub.h"

#include <tethrix/protocol/runtime_tree.h>

namespace tethrix::service {

namespace {

http::message_generator reply(const HttpRequest& request, http::status status, std::string body,
                              std::string_view contentType = "text/plain; charset=utf-8") {
    http::response<http::string_body> response(status, request.version());
    response.set(http::field::server, "tethrix-service");
    response.set(http::field::content_type, contentType);
    if (status == http::status::method_not_allowed)
        response.set(http::field::allow, "GET, HEAD, POST");
    response.keep_alive(request.keep_alive());
    if (contentType.rfind("text/", 0) == 0)
        body += "\n";
    const std::size_t length = body.size();
    if (request.method() != http::verb::head)
        response.body() = std::move(body);
    response.prepare_payload();
    if (request.method() == http::verb::head)
        response.content_length(length);
    return response;
}

http::status statusOf(PublishOutcome::Status status) {
    switch (status) {
    case PublishOutcome::Status::published:
        return http::status::ok;
    case PublishOutcome::Status::unknownName:
        return http::status::not_found;
    default:
        return http::status::bad_request;
    }
}

}  // namespace

bool isRuntimePath(std::string_view path) {
    return path.substr(0, runtimePathPrefix.size()) == runtimePathPrefix ||
           path == runtimePathPrefix.substr(0, runtimePathPrefix.size() - 1);
}

http::message_generator respondRuntime(const HttpRequest& request, std::string_view path, RuntimeData& runtimeData) {
    const std::string name(path.substr(std::min(path.size(), runtimePathPrefix.size())));
    const auto method = request.method();
    if (method != http::verb::post && method != http::verb::get && method != http::verb::head) {
        return reply(request, http::status::method_not_allowed, "use POST to publish, GET to read the state");
    }
    if (method == http::verb::post) {
        PublishOutcome outcome = runtimeData.publish(name, request.body());
        return reply(request, statusOf(outcome.status), std::move(outcome.message));
    }
    if (auto state = runtimeData.state(name))
        return reply(request, http::status::ok, *state, "application/json");
    return reply(request, http::status::not_found, "no runtime data " + protocol::quoted(runtimeDataScheme + name));
}

}  // namespace tethrix::service
