#include "tree_printer.h"

#include <boost/lexical_cast.hpp>

#include <string>

namespace zarvo::host {

const char* typeName(DataObject::Type type) {
    switch (type) {
    case DataObject::TypeObject:
        return "object";
    case DataObject::TypeInteger:
        return "integer";
    case DataObject::TypeReal:
        return "real";
    case DataObject::TypeBoolean:
        return "boolean";
    case DataObject::TypeString:
        return "string";
    case DataObject::TypeEnumeration:
        return "enumeration";
    case DataObject::TypeList:
        return "list";
    }
    return "unknown";
}

std::string valueText(const DataObject& object) {
    switch (object.getType()) {
    case DataObject::TypeInteger:
        return boost::lexical_cast<std::string>(static_cast<const DataObjectInteger&>(object).getValue());
    case DataObject::TypeReal:
        return boost::lexical_cast<std::string>(static_cast<const DataObjectReal&>(object).getValue());
    case DataObject::TypeBoolean:
        return static_cast<const DataObjectBoolean&>(object).getValue() ? "true" : "false";
    case DataObject::TypeString:
        return "\"" + static_cast<const DataObjectString&>(object).getValue() + "\"";
    default:
        return std::string();
    }
}

void printTree(std::ostream& out, const std::shared_ptr<DataObject>& object, int depth) {
    const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
    if (!object) {
        out << indent << "(empty)\n";
        return;
    }
    const DataObject::Type type = object->getType();
    out << indent << object->getName() << " (" << typeName(type);
    if (type == DataObject::TypeList) {
        auto& list = static_cast<DataObjectList&>(*object);
        const std::size_t rows = list.itemCount();
        out << ", " << rows << (rows == 1 ? " row)\n" : " rows)\n");
        for (std::size_t row = 0; row < rows; ++row) {
            printTree(out, list.acquireItem(row), depth + 1);
            list.releaseItem(row);
        }
        return;
    }
    out << ")";
    const std::string value = valueText(*object);
    if (type != DataObject::TypeObject) {
        out << " = " << value;
    }
    out << "\n";
    for (std::size_t child = 0; child < object->getChildCount(); ++child) {
        printTree(out, object->getChild(child), depth + 1);
    }
}

}  // namespace zarvo::host
