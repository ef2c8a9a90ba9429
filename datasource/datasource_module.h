// The plug-in's entry: the module that createModule gives the engine.
#ifndef ZARVO_DATASOURCE_DATASOURCE_MODULE_H
#define ZARVO_DATASOURCE_DATASOURCE_MODULE_H

#include <zarvo/module.h>

#include <vector>

namespace zarvo {

class DataSourceModule : public Plugin {
public:
    /// Exactly one metaclass, that of ZarvoTethrixDataSource: data objects
    /// and lists are made by the adapters and never by name.
    std::vector<const Metaclass*> getMetaclassesOverride() override;
    /// Registers the http and https resource protocols for `domain`.
    void registerMetadataOverride(ObjectFactory& factory) override;
};

}  // namespace zarvo

/// The library's one exported function. The engine releases the module
/// through Module::destroy.
extern "C" __attribute__((visibility("default"))) zarvo::Module* createModule();

#endif
