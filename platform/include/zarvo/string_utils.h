// Text helpers of the engine.
#ifndef ZARVO_STRING_UTILS_H
#define ZARVO_STRING_UTILS_H

#include <string>
#include <vector>

namespace zarvo {

/// The pieces of `text` between any of the characters in `separators`, in
/// order. Empty pieces are kept: ";a;;b" gives "", "a", "", "b". An empty
/// text gives one empty piece. Empty `separators` gives `text` whole.
std::vector<std::string> splitString(const std::string& text, const std::string& separators);

}  // namespace zarvo

#endif
