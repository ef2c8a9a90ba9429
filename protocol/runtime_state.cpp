#include <tethrix/protocol/runtime_state.h>

#include <tethrix/protocol/value_text.h>

#include <cmath>

namespace tethrix::protocol {

void writeRuntimeReal(JsonWriter& writer, double value) {
    if (!std::isfinite(value))
        return writer.string(formatReal(value));
    std::string spelt = formatReal(value);
    if (spelt.find_first_of(".eE") == std::string::npos)
        spelt += ".0";
    writer.number(spelt);
}

namespace runtime_state {

void writeValue(JsonWriter& writer, int type, const std::string& text) {
    int integer = 0;
    double real = 0.0;
    bool boolean = false;
    if (type == runtimeInteger && parseInteger(text, integer))
        return writer.integer(integer);
    if (type == runtimeBoolean && parseBoolean(text, boolean))
        return writer.boolean(boolean);
    if (type == runtimeReal && parseReal(text, real))
        return writeRuntimeReal(writer, real);
    writer.string(text);
}

}  // namespace runtime_state
}  // namespace tethrix::protocol
