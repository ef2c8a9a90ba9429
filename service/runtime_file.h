// Runtime data trees from a file. A file declares trees as a data source
// configuration declares runtime sources, so that one file serves both the
// service and the plug-in: the root element with a `service` attribute is
// the tree of that name, and every element below the root whose `uri` is
// servicedata://<name> is the tree <name>. Everything else in the file
// (content sources, overrides) is passed over.
#ifndef TETHRIX_SERVICE_RUNTIME_FILE_H
#define TETHRIX_SERVICE_RUNTIME_FILE_H

#include "runtime_node.h"

#include <string>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
}

namespace tethrix::service {

struct NamedRuntimeTree {
    std::string name;
    RuntimeNode::Ptr root;
};

/// Throws std::runtime_error with a one-line reason that names the file,
/// the tree and, for a fault of the grammar, the line and element.
std::vector<NamedRuntimeTree> loadRuntimeFile(const std::string& path);

/// The same for a document already parsed; `origin` leads each reason.
std::vector<NamedRuntimeTree> readRuntimeTrees(const tinyxml2::XMLDocument& document, const std::string& origin);

/// Names go into URLs and update paths unescaped: letters, digits, '_', '-'.
bool isRuntimeTreeName(const std::string& name);

}  // namespace tethrix::service

#endif
