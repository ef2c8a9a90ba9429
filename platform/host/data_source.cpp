#include <zarvo/data_source.h>

namespace zarvo {

DataSource::DataSource(Domain* domain, string_view name) : DataContext(domain, name) {}

DataSource::~DataSource() = default;

std::shared_ptr<DataObject> DataSource::lookupDataContext(string_view path) {
    std::shared_ptr<DataObject> root = getData();
    if (!root || path.empty()) {
        return root;
    }
    const auto dot = path.find('.');
    const string_view first = path.substr(0, dot);
    if (first == root->getObjectName()) {
        return root->lookupDataContext(dot == string_view::npos ? string_view() : path.substr(dot + 1));
    }
    return root->lookupDataContext(path);
}

void DataSource::loadFromZVB(Domain*, ZvbFile&, ReadOnlyMemoryFile&, ZvbMemoryParser&) {
    setLoaded(true);
}

MetaclassEditorInfo DataSource::makeEditorInfo() {
    return MetaclassEditorInfo();
}

const Metaclass* DataSource::getStaticMetaclass() {
    static const MetaclassAbstractImpl<DataSource> metaclass("Zarvo.DataSource", DataContext::getStaticMetaclass(),
                                                             true, {}, &DataSource::makeEditorInfo);
    return &metaclass;
}

}  // namespace zarvo
