// The http and https resource protocols: image URLs that the engine's
// resource manager loads through a LoadImageTask.
#ifndef ZARVO_DATASOURCE_HTTP_PROTOCOL_HANDLER_ACTIONS_H
#define ZARVO_DATASOURCE_HTTP_PROTOCOL_HANDLER_ACTIONS_H

namespace zarvo {

class Domain;

/// Gives the domain's resource manager a handler for "http" and for "https",
/// each unless that scheme has a handler already. Does nothing for a null
/// domain or a domain without a resource manager.
void registerSupportedProtocols(Domain* domain);

}  // namespace zarvo

#endif
