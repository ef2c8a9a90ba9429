// Prints a data tree, one object a line, indented by depth.
#ifndef ZARVO_HOST_TREE_PRINTER_H
#define ZARVO_HOST_TREE_PRINTER_H

#include <zarvo/data_object.h>

#include <ostream>

namespace zarvo::host {

/// `name (type) = value` for values, `name (object)` and
/// `name (list, N rows)` followed by the children or rows. Rows of a list
/// are acquired for printing and released again.
void printTree(std::ostream& out, const std::shared_ptr<DataObject>& object, int depth = 0);

/// The name of a data object type as the tree shows it.
const char* typeName(DataObject::Type type);
/// The value of a typed data object as text; empty for other objects.
std::string valueText(const DataObject& object);
/// An object on one line: `title="Blue Hour" duration=215.5`, a list as
/// `albums=(list, 3 rows)`, an object as `name=(object)`.
std::string fieldsText(const DataObject& object);
/// A value as `= value`, a list as `(list, N rows)`, an object as `(object)`:
/// what follows a name or path on a line.
std::string describe(DataObject& object);

}  // namespace zarvo::host

#endif
