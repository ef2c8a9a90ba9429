// Feeds arbitrary bytes to the XML configuration reader, once as the
// declaration string and once as a file beside it. The reader may leave only
// through the two failures it is allowed: a bad number and a missing
// mandatory attribute. Anything else, a crash or a sanitizer report, is a
// finding.
#include "datasource/xml_configuration_reader.h"

#include <zarvo/log.h>

#include <boost/lexical_cast.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

// Records are formatted as usual and then dropped, so that millions of runs
// neither fill the terminal nor memory.
class NullLogger : public zarvo::Logger {
public:
    void writeOverride(zarvo::LogLevel, zarvo::string_view, zarvo::string_view, zarvo::string_view, unsigned int,
                       zarvo::string_view) override {}
};

// One scratch file per process, rewritten for every input.
class ScratchFile {
public:
    ScratchFile() {
        const char* directory = std::getenv("TMPDIR");
        path = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") +
               "/xml_configuration_reader_fuzzer-XXXXXX";
        const int descriptor = mkstemp(&path[0]);
        if (descriptor < 0) {
            std::perror("xml_configuration_reader_fuzzer: cannot create a scratch file");
            std::abort();
        }
        close(descriptor);
    }
    ~ScratchFile() { std::remove(path.c_str()); }

    const std::string& write(const std::uint8_t* data, std::size_t size) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
            std::perror("xml_configuration_reader_fuzzer: cannot write the scratch file");
            std::abort();
        }
        return path;
    }

private:
    std::string path;
};

void readExpectingOnlyAllowedFailures(const std::string& fileName, const std::string& declaration) {
    try {
        zarvo::XmlConfigurationReader().loadFromFile(nullptr, fileName, declaration);
    } catch (const boost::bad_lexical_cast&) {
    } catch (const std::logic_error& error) {
        if (std::strcmp(error.what(), "basic_string::_M_construct null not valid") != 0) {
            std::fprintf(stderr, "unexpected std::logic_error: %s\n", error.what());
            std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static NullLogger nullLogger;
    static ScratchFile scratch;
    zarvo::DefaultLogger::s_chainedLogger = &nullLogger;

    const std::string text(reinterpret_cast<const char*>(data), size);
    readExpectingOnlyAllowedFailures(std::string(), text);
    readExpectingOnlyAllowedFailures(scratch.write(data, size), text);
    return 0;
}
