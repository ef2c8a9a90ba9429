# Remote images are fetched with libcurl.
find_package(CURL REQUIRED)
target_link_libraries(zarvo_tethrix_datasource_core PUBLIC CURL::libcurl)
