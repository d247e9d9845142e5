#include "qxmedia/mp4/tags/MP4TagBoxes.h"

#include "qxmedia/mp4/MP4MovieBoxes.h"

namespace qx::mp4 {

QX_MP4_REGISTER_BOX_IN(IlstBox, "ilst", "meta");
QX_MP4_REGISTER_BOX_IN(ChplBox, "chpl", "udta");

bool IlstBox::parseFields(ByteReader& in)
{
    const std::vector<uint8_t> payload = in.rest();
    items = MP4ItmfParseItems(payload);
    return in.ok();
}

void IlstBox::writeFields(ByteWriter& out) const { out.bytes(MP4ItmfSerializeItems(items)); }

std::string IlstBox::describe() const
{
    std::string text = std::to_string(items.size()) + " items";
    for (const MP4ItmfItem& item : items) {
        if (item.code.empty()) continue;
        text += " " + MP4ItmfCodeToText(item.code);
        if (item.isFreeForm()) text += ":" + item.name;
    }
    return text;
}

bool ChplBox::parseFields(ByteReader& in)
{
    const std::vector<uint8_t> payload = in.rest();
    auto decoded = MP4ChplDecode(payload);
    if (!decoded) return false;
    chapters = std::move(*decoded);
    return true;
}

void ChplBox::writeFields(ByteWriter& out) const { out.bytes(MP4ChplEncode(chapters)); }

std::string ChplBox::describe() const { return std::to_string(chapters.size()) + " chapters"; }

namespace {

// Re-reads `box` as a T from its own bytes and puts the T in its place.
template <class T> T* retypeInPlace(Box* box)
{
    if (!box) return nullptr;
    if (auto typed = dynamic_cast<T*>(box)) return typed;
    const std::vector<uint8_t> bytes = box->toBytes();
    ByteReader header(bytes);
    BoxParser::Header parsed;
    if (!BoxParser::readHeader(header, bytes.size(), box->fileOffset, parsed)) return nullptr;
    auto typed = std::make_unique<T>();
    ByteReader payload(bytes.data() + parsed.headerSize, bytes.size() - parsed.headerSize);
    if (!typed->parseFields(payload)) return nullptr;
    typed->fileOffset = box->fileOffset;
    typed->fileSize = box->fileSize;
    T* result = typed.get();
    box->parent()->replaceChild(box, std::move(typed));
    return result;
}

} // namespace

namespace {

// The meta box of iTunes tags: handler "mdir" (or no handler at all). A
// QuickTime meta with handler "mdta" keeps its ilst items by key index and
// is not one.
Box* tagMeta(Box& moov)
{
    Box* udta = moov.findChild(kUdta);
    if (!udta) return nullptr;
    for (Box* meta : udta->findChildren(MetaBox::kType)) {
        auto* hdlr = meta->findChild<HdlrBox>();
        if (!hdlr || hdlr->handlerType == fourcc("mdir")) return meta;
    }
    return nullptr;
}

} // namespace

IlstBox* MP4FindIlst(Box& moov)
{
    Box* meta = tagMeta(moov);
    if (!meta) return nullptr;
    return retypeInPlace<IlstBox>(meta->findChild(IlstBox::kType));
}

IlstBox& MP4MakeIlst(Box& moov)
{
    if (IlstBox* found = MP4FindIlst(moov)) return *found;
    Box* udta = moov.findChild(kUdta);
    if (!udta) udta = moov.addChild(BoxRegistry::create(kUdta, moov.type()));
    Box* meta = tagMeta(moov);
    if (!meta) meta = udta->addChild(std::make_unique<MetaBox>());
    if (!meta->findChild(HdlrBox::kType)) {
        auto hdlr = std::make_unique<HdlrBox>();
        hdlr->handlerType = fourcc("mdir");
        hdlr->reserved[0] = fourcc("appl");
        meta->insertChild(0, std::move(hdlr));
    }
    return *meta->makeChild<IlstBox>();
}

ChplBox* MP4FindChpl(Box& moov)
{
    Box* udta = moov.findChild(kUdta);
    if (!udta) return nullptr;
    return retypeInPlace<ChplBox>(udta->findChild(ChplBox::kType));
}

} // namespace qx::mp4
