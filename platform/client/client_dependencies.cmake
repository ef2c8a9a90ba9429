# Runtime data update text is JSON.
target_link_libraries(zarvo_client PRIVATE Boost::json)
