// Data sources: resources that own a data tree.
#ifndef ZARVO_DATA_SOURCE_H
#define ZARVO_DATA_SOURCE_H

#include <zarvo/data_object.h>

namespace zarvo {

class DataSource : public DataContext {
public:
    DataSource(Domain* domain, string_view name);
    ~DataSource() override;

    using Resource::loadFromZVB;
    /// Looks `path` up below getData(); an empty path gives getData(). The
    /// path may start with the root's own name or leave it out: with a root
    /// "Root", both "Root.connected" and "connected" give its child
    /// "connected", and "Root" gives the root. A first name equal to the
    /// root's always means the root itself. Null while there is no data.
    std::shared_ptr<DataObject> lookupDataContext(string_view path) override;
    /// The second way of reading a resource; the base marks it loaded.
    virtual void loadFromZVB(Domain* domain, ZvbFile& file, ReadOnlyMemoryFile& memoryFile, ZvbMemoryParser& parser);

    static MetaclassEditorInfo makeEditorInfo();
    static const Metaclass* getStaticMetaclass();
};

}  // namespace zarvo

#endif
