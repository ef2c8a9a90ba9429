#include "datasource/datasource_module.h"

#include "datasource/http_protocol_handler_actions.h"
#include "datasource/zarvo_tethrix_datasource.h"

namespace zarvo {

std::vector<const Metaclass*> DataSourceModule::getMetaclassesOverride() {
    return {ZarvoTethrixDataSource::getStaticMetaclass()};
}

void DataSourceModule::registerMetadataOverride(ObjectFactory& /*factory*/) {
    registerSupportedProtocols(domain);
}

}  // namespace zarvo

zarvo::Module* createModule() {
    return new zarvo::DataSourceModule();
}
