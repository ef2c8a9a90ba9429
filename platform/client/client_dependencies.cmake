# Runtime data update text is JSON.
target_link_libraries(zarvo_client PRIVATE Boost::json)
# The network transport speaks the protocol of protocol/, and the runtime
# data builder and internalizer read the formats through it. The target is
# defined later in the build; names resolve once everything is read.
target_link_libraries(zarvo_client PRIVATE tethrix_protocol)
