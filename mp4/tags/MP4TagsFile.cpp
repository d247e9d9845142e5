// Tags and free-form items on an open file: the ilst of moov/udta/meta.

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/mp4/tags/MP4TagBoxes.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

namespace qx::mp4 {

namespace {

bool writable(MP4File& file, const char* operation)
{
    if (file.mode() != MP4File::Mode::Read && file.moov()) return true;
    MP4Log(MP4_LOG_ERROR, "%s: %s is not open for writing", operation, file.path().c_str());
    return false;
}

// After a store that left the ilst empty: drop the ilst, a meta that only
// held it and its handler, and a udta left empty, so that a file without
// tags has no tag boxes.
void pruneEmptyTags(Box& moov)
{
    IlstBox* ilst = MP4FindIlst(moov);
    if (!ilst || !ilst->items.empty()) return;
    Box* meta = ilst->parent();
    Box* udta = meta->parent();
    meta->removeChild(ilst);
    const bool onlyHandler = meta->children().size() == 1 && meta->findChild(HdlrBox::kType);
    if (meta->children().empty() || onlyHandler) udta->removeChild(meta);
    if (udta->children().empty() && udta->trailing.empty()) moov.removeChild(udta);
}

bool anyTagSet(const MP4Tags& tags)
{
    MP4ItmfItemList items;
    MP4TagsStore(tags, items);
    return !items.empty();
}

} // namespace

bool MP4TagsFetch(MP4Tags& tags, MP4File& file)
{
    Box* moov = file.moov();
    if (!moov) return false;
    if (IlstBox* ilst = MP4FindIlst(*moov)) MP4TagsFetch(tags, ilst->items);
    return true;
}

bool MP4TagsStore(const MP4Tags& tags, MP4File& file)
{
    if (!writable(file, "MP4TagsStore")) return false;
    Box& moov = *file.moov();
    IlstBox* ilst = MP4FindIlst(moov);
    if (!ilst) {
        if (!anyTagSet(tags)) return true;
        ilst = &MP4MakeIlst(moov);
    }
    MP4TagsStore(tags, ilst->items);
    pruneEmptyTags(moov);
    return true;
}

MP4ItmfItemList MP4ItmfGetItems(MP4File& file)
{
    Box* moov = file.moov();
    IlstBox* ilst = moov ? MP4FindIlst(*moov) : nullptr;
    return ilst ? ilst->items : MP4ItmfItemList {};
}

MP4ItmfItemList MP4ItmfGetItemsByMeaning(MP4File& file, const std::string& mean, const std::string& name)
{
    return MP4ItmfGetItemsByMeaning(MP4ItmfGetItems(file), mean, name);
}

bool MP4ItmfAddItem(MP4File& file, const MP4ItmfItem& item)
{
    if (!writable(file, "MP4ItmfAddItem")) return false;
    if (item.code.size() != 4 || item.dataList.empty()) return false;
    MP4ItmfItem added = item;
    added.raw.clear();
    MP4MakeIlst(*file.moov()).items.push_back(std::move(added));
    return true;
}

bool MP4ItmfRemoveItem(MP4File& file, const MP4ItmfItem& item)
{
    if (!writable(file, "MP4ItmfRemoveItem")) return false;
    IlstBox* ilst = MP4FindIlst(*file.moov());
    if (!ilst || !MP4ItmfRemoveItem(ilst->items, item)) return false;
    pruneEmptyTags(*file.moov());
    return true;
}

} // namespace qx::mp4
