// Entry for fuzzers: decodes arbitrary bytes and checks that whatever decodes
// also survives encode and a second decode unchanged. A violation aborts,
// which is what a fuzzer reports.
#ifndef TETHRIX_PROTOCOL_FUZZ_DECODE_H
#define TETHRIX_PROTOCOL_FUZZ_DECODE_H

#include <cstddef>
#include <cstdint>

namespace tethrix::protocol {

/// Returns 0 always, as libFuzzer expects of its test function.
int fuzzDecode(const std::uint8_t* data, std::size_t size);

}  // namespace tethrix::protocol

#endif
