// String views of the engine's interface. The engine's toolchain stops at
// C++14, so the view type is Boost's.
#ifndef ZARVO_STRING_VIEW_H
#define ZARVO_STRING_VIEW_H

#include <boost/utility/string_view.hpp>

namespace zarvo {

using string_view = boost::string_view;

}  // namespace zarvo

#endif
