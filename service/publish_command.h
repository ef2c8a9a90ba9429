// tethrix-service publish: posts update text to the runtime data endpoint of
// a running service and tells in one line what became of it.
//
//     tethrix-service publish --service http://127.0.0.1:8080 player '{"values":{"volume":7}}'
//     tethrix-service publish --service 127.0.0.1:8080 player @update.json
#ifndef TETHRIX_SERVICE_PUBLISH_COMMAND_H
#define TETHRIX_SERVICE_PUBLISH_COMMAND_H

#include <iosfwd>
#include <string>
#include <vector>

namespace tethrix::service {

constexpr const char* publishUsage = "usage: tethrix-service publish --service URL NAME TEXT|@FILE";

struct PublishRequest {
    std::string host;
    std::string port;
    std::string name;
    std::string text;
};

/// Reads the arguments after "publish", and the file of an @FILE. Throws
/// std::invalid_argument with a one-line reason.
PublishRequest parsePublishCommand(const std::vector<std::string>& arguments);

struct PublishReply {
    int status = 0;    ///< the HTTP status
    std::string body;  ///< the service's one line, without its line end
};

/// Throws std::runtime_error when the service cannot be reached.
PublishReply postUpdate(const PublishRequest& request);

/// The whole command: the service's answer on `out` and exit code 0, or
/// why not on `err` and exit code 1.
int runPublishCommand(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

}  // namespace tethrix::service

#endif
