// A plug-in module that keeps one client context per domain, as a data
// source plug-in does.
#include <zarvo/client.h>
#include <zarvo/domain.h>
#include <zarvo/module.h>

namespace {

class ConsumerPlugin : public zarvo::Plugin {
public:
    void registerMetadataOverride(zarvo::ObjectFactory& /*factory*/) override {
        context = zarvo::Context::instance(*domain, "consumer");
    }

private:
    std::shared_ptr<zarvo::Context> context;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) zarvo::Module* createModule() {
    return new ConsumerPlugin;
}
