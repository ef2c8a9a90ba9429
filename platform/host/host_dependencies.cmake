# Image decoding for textures.
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
target_link_libraries(zarvo_host PRIVATE PNG::PNG JPEG::JPEG)
