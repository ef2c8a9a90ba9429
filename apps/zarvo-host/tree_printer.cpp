#include "tree_printer.h"

#include <zarvo/client/value_text.h>

#include <boost/lexical_cast.hpp>

#include <string>

namespace zarvo::host {

namespace {

// Content reals travel as float and are kept as double: 215.3f shows as
// "215.3", not as the 17 digits of the double it became.
std::string realText(double value) {
    const auto narrow = static_cast<float>(value);
    if (static_cast<double>(narrow) == value) {
        return client::formatReal(narrow);
    }
    return client::formatReal(value);
}

}  // namespace

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
        return realText(static_cast<const DataObjectReal&>(object).getValue());
    case DataObject::TypeBoolean:
        return static_cast<const DataObjectBoolean&>(object).getValue() ? "true" : "false";
    case DataObject::TypeString:
        return "\"" + static_cast<const DataObjectString&>(object).getValue() + "\"";
    default:
        return std::string();
    }
}

std::string describe(DataObject& object) {
    const DataObject::Type type = object.getType();
    if (type == DataObject::TypeList) {
        const std::size_t rows = static_cast<DataObjectList&>(object).itemCount();
        return "(list, " + std::to_string(rows) + (rows == 1 ? " row)" : " rows)");
    }
    if (type == DataObject::TypeObject) {
        return "(object)";
    }
    return "= " + valueText(object);
}

std::string fieldsText(const DataObject& object) {
    std::string text;
    for (std::size_t index = 0; index < object.getChildCount(); ++index) {
        const std::shared_ptr<DataObject> child = object.getChild(index);
        if (!child) {
            continue;
        }
        if (!text.empty()) {
            text += ' ';
        }
        text += child->getName();
        const DataObject::Type type = child->getType();
        text += type == DataObject::TypeList || type == DataObject::TypeObject ? "=" + describe(*child)
                                                                               : "=" + valueText(*child);
    }
    return text;
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
