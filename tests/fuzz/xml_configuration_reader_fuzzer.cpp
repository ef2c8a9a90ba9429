// Feeds arbitrary bytes to the XML configuration reader, once as the
// declaration string and once as a file beside it. The reader may leave only
// through the two failures it is allowed: a bad number and a missing
// mandatory attribute. Anything else, a crash or a sanitizer report, is a
// finding.
#include "datasource/xml_configuration_reader.h"

#include <zarvo/log.h>

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
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
    // One scratch file per process, rewritten for every input.
    static const std::string scratch =
        (std::filesystem::temp_directory_path() / ("xml_configuration_reader_fuzzer-" + std::to_string(getpid())))
            .string();
    zarvo::DefaultLogger::s_chainedLogger = &nullLogger;

    const std::string text(reinterpret_cast<const char*>(data), size);
    readExpectingOnlyAllowedFailures(std::string(), text);
    std::ofstream(scratch, std::ios::binary | std::ios::trunc) << text;
    readExpectingOnlyAllowedFailures(scratch, text);
    std::remove(scratch.c_str());
    return 0;
}
