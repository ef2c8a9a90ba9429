// Creates the consumer's module in a domain as the engine would.
#include <zarvo/domain.h>
#include <zarvo/module.h>

#include <iostream>

extern "C" zarvo::Module* createModule();

int main() {
    zarvo::Domain domain;
    zarvo::Module* module = createModule();
    module->domain = &domain;
    zarvo::ObjectFactory factory;
    module->registerMetadataOverride(factory);
    zarvo::destroyModule(module);
    std::cout << "consumer: module created, plug-ins in " << PLUGIN_DIR << "\n";
    return 0;
}
