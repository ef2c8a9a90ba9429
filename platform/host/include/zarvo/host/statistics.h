// What the engine can tell of the data trees in the process, for tools that
// watch a source's memory from outside the plug-in.
#ifndef ZARVO_HOST_STATISTICS_H
#define ZARVO_HOST_STATISTICS_H

#include <cstddef>

namespace zarvo {

/// Data objects alive now, in every domain: rows a list keeps, the trees of
/// sources, templates.
std::size_t liveDataObjectCount();

}  // namespace zarvo

#endif
