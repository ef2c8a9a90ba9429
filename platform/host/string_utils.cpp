#include <zarvo/string_utils.h>

namespace zarvo {

std::vector<std::string> splitString(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces;
    if (separators.empty()) {
        pieces.push_back(text);
        return pieces;
    }
    std::string::size_type begin = 0;
    for (;;) {
        const auto end = text.find_first_of(separators, begin);
        if (end == std::string::npos) {
            pieces.push_back(text.substr(begin));
            return pieces;
        }
        pieces.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
}

}  // namespace zarvo
