// The sample media library and its configuration: what the generator writes
// is what the service, the image loader and examples/media.xml expect.
#include "content_store.h"
#include "file_server.h"
#include "test_database.h"

#include <gtest/gtest.h>
#include <tinyxml2.h>

// jpeglib.h needs size_t and FILE declared before it.
#include <cstddef>
#include <cstdio>
#include <csetjmp>
#include <fstream>
#include <jpeglib.h>
#include <png.h>
#include <set>
#include <sstream>

namespace tethrix::service {
namespace {

std::filesystem::path sourceDirectory()
{
    const char* source = std::getenv("ZARVO_SOURCE_DIR");
    return source ? source : ".";
}

std::string readFile(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ImageSize {
    int width = 0;
    int height = 0;
};

std::optional<ImageSize> decodePng(const std::string& data)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, data.data(), data.size())) return std::nullopt;
    image.format = PNG_FORMAT_RGB;
    std::vector<png_byte> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return std::nullopt;
    return ImageSize{static_cast<int>(image.width), static_cast<int>(image.height)};
}

struct JpegErrors {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

/// Decodes every scanline; false on any error libjpeg reports.
bool decodeJpegInto(jpeg_decompress_struct& decoder, JpegErrors& errors, const std::string& data, ImageSize& size)
{
    if (setjmp(errors.jump)) return false;
    jpeg_mem_src(&decoder, reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned long>(data.size()));
    if (jpeg_read_header(&decoder, TRUE) != JPEG_HEADER_OK) return false;
    jpeg_start_decompress(&decoder);
    std::vector<JSAMPLE> row(decoder.output_width * static_cast<unsigned>(decoder.output_components));
    while (decoder.output_scanline < decoder.output_height) {
        JSAMPROW rows[] = {row.data()};
        jpeg_read_scanlines(&decoder, rows, 1);
    }
    size = {static_cast<int>(decoder.output_width), static_cast<int>(decoder.output_height)};
    jpeg_finish_decompress(&decoder);
    return errors.manager.num_warnings == 0;
}

std::optional<ImageSize> decodeJpeg(const std::string& data)
{
    jpeg_decompress_struct decoder{};
    JpegErrors errors{};
    decoder.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = [](j_common_ptr info) { std::longjmp(reinterpret_cast<JpegErrors*>(info->err)->jump, 1); };
    errors.manager.output_message = [](j_common_ptr) {};
    jpeg_create_decompress(&decoder);
    ImageSize size;
    bool decoded = decodeJpegInto(decoder, errors, data, size);
    jpeg_destroy_decompress(&decoder);
    if (!decoded) return std::nullopt;
    return size;
}

class MediaLibraryTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        directory = new testing::TemporaryDirectory();
        std::string command = "python3 '" + (sourceDirectory() / "examples" / "generate-media-library").string() +
                              "' --tracks 300 --covers 6 --quiet --output '" + directory->path().string() +
                              "' > /dev/null";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    static void TearDownTestSuite()
    {
        delete directory;
        directory = nullptr;
    }

    void SetUp() override
    {
        store = std::make_unique<ContentStore>((directory->path() / "media.db").string(), defaultAuthority);
    }

    protocol::Result run(const std::string& table, std::vector<std::string> columns, std::string filter = "")
    {
        protocol::Query query;
        query.uri = "content://com.tavelorix.content/" + table;
        query.columns = std::move(columns);
        query.filter = std::move(filter);
        return store->execute(query);
    }

    static testing::TemporaryDirectory* directory;
    std::unique_ptr<ContentStore> store;
};

testing::TemporaryDirectory* MediaLibraryTest::directory = nullptr;

TEST_F(MediaLibraryTest, TablesHaveTheAdvertisedShape)
{
    using T = protocol::ColumnType;
    auto tracks = run("tracks", {});
    EXPECT_EQ(tracks.rows.size(), 300u);
    std::vector<std::pair<std::string, T>> columns;
    for (const auto& column : tracks.columns) columns.emplace_back(column.name, column.type);
    EXPECT_EQ(columns, (std::vector<std::pair<std::string, T>>{
                           {"id", T::integer}, {"title", T::text}, {"artist_id", T::integer}, {"album_id", T::integer},
                           {"track_number", T::integer}, {"duration", T::real}, {"favourite", T::boolean},
                           {"play_count", T::integer}, {"genre", T::text}, {"cover", T::text}}));
    EXPECT_EQ(run("albums", {"id"}).rows.size(), 25u);
    EXPECT_EQ(run("library", {"track_count"}).rows,
              (std::vector<std::vector<protocol::Value>>{{std::int64_t{300}}}));
    EXPECT_FALSE(run("tracks", {"id"}, "favourite=true").rows.empty());
    EXPECT_FALSE(run("tracks", {"id"}, "genre IS NULL").rows.empty());
}

TEST_F(MediaLibraryTest, EveryAlbumKeyOfAnArtistFindsItsAlbumAsTheDataSourceAsks)
{
    std::set<std::int64_t> seen;
    for (const auto& artist : run("artists", {"id", "album_ids"}).rows) {
        std::stringstream keys(std::get<std::string>(artist[1]));
        std::string key;
        while (std::getline(keys, key, ';')) {
            auto album = run("albums", {"id", "artist_id"}, "id=" + key).rows;  // a bare key, as written
            ASSERT_EQ(album.size(), 1u) << key;
            EXPECT_EQ(album[0][1], artist[0]);
            seen.insert(std::get<std::int64_t>(album[0][0]));
        }
    }
    EXPECT_EQ(seen.size(), 25u);
}

TEST_F(MediaLibraryTest, EveryCoverIsAServedImageThatDecodes)
{
    FileServer files(directory->path() / "files");
    const std::string base = "http://127.0.0.1:8080";
    std::set<std::string> covers;
    for (const auto& row : run("albums", {"cover"}).rows) covers.insert(std::get<std::string>(row[0]));
    covers.insert(base + "/placeholder.png");
    std::set<std::string> kinds;
    for (const auto& url : covers) {
        SCOPED_TRACE(url);
        ASSERT_EQ(url.rfind(base, 0), 0u);
        auto resolution = files.resolve(url.substr(base.size()));
        ASSERT_EQ(resolution.status, http::status::ok);
        std::string data = readFile(resolution.file);
        std::string type(contentTypeFor(resolution.file));
        kinds.insert(type);
        auto size = type == "image/png" ? decodePng(data) : decodeJpeg(data);
        ASSERT_TRUE(size.has_value());
        EXPECT_EQ(size->width, 48);
        EXPECT_EQ(size->height, 48);
        if (type == "image/jpeg") {
            // What the image loader checks before it decodes.
            EXPECT_EQ(data.substr(0, 2), "\xFF\xD8");
            EXPECT_EQ(data.substr(data.size() - 2), "\xFF\xD9");
        }
    }
    EXPECT_EQ(kinds, (std::set<std::string>{"image/jpeg", "image/png"}));
}

TEST_F(MediaLibraryTest, TheExampleConfigurationNamesOnlyColumnsThatExist)
{
    tinyxml2::XMLDocument document;
    ASSERT_EQ(document.LoadFile((sourceDirectory() / "examples" / "media.xml").c_str()), tinyxml2::XML_SUCCESS);
    int sources = 0;
    for (auto* source = document.RootElement()->FirstChildElement(); source; source = source->NextSiblingElement()) {
        // Override elements, as the configuration reader tells them apart.
        std::string element = source->Name();
        const char* uri = source->Attribute("uri");
        if (element == "preload_url" || element == "block_size" || !uri) continue;
        ++sources;
        std::string table = std::string(uri).substr(std::string(uri).rfind('/') + 1);
        std::vector<std::string> columns;
        for (auto* field = source->FirstChildElement(); field; field = field->NextSiblingElement()) {
            const char* column = field->Attribute("column");
            columns.emplace_back(column ? column : field->Attribute("name"));
        }
        SCOPED_TRACE(table);
        protocol::Query query;
        query.uri = std::string("content://") + uri;
        query.columns = columns;
        query.filter = source->Attribute("filter") ? source->Attribute("filter") : "";
        query.sort = source->Attribute("sort") ? source->Attribute("sort") : "";
        query.count = 1;
        EXPECT_NO_THROW(store->execute(query));
    }
    EXPECT_EQ(sources, 4);
}

}  // namespace
}  // namespace tethrix::service
