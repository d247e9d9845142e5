#include "qxmedia/mp4/MP4Box.h"

#include "qxmedia/mp4/MP4Log.h"

#include <cinttypes>
#include <map>
#include <mutex>
#include <typeinfo>
#include <utility>

namespace qx::mp4 {

FourCC fourcc(std::string_view text)
{
    char b[4] = {' ', ' ', ' ', ' '};
    for (size_t i = 0; i < 4 && i < text.size(); ++i) b[i] = text[i];
    return (FourCC(uint8_t(b[0])) << 24) | (FourCC(uint8_t(b[1])) << 16) | (FourCC(uint8_t(b[2])) << 8) |
           FourCC(uint8_t(b[3]));
}

std::string fourccString(FourCC type)
{
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i) s[size_t(i)] = char((type >> (24 - 8 * i)) & 0xFF);
    return s;
}

bool fourccIsPrintable(FourCC type)
{
    for (int i = 0; i < 4; ++i) {
        uint8_t c = uint8_t(type >> (24 - 8 * i));
        if ((c < 0x20 || c > 0x7E) && c != 0xA9) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------

Box::~Box() = default;

bool Box::parseFields(ByteReader& in)
{
    (void)in;
    return true;
}

void Box::writeFields(ByteWriter& out) const { (void)out; }

void Box::write(ByteWriter& out) const
{
    size_t start = out.size();
    out.u32(0);
    out.u32(type_);
    writeFields(out);
    for (const auto& child : children_) child->write(out);
    out.bytes(trailing);
    uint64_t size = out.size() - start;
    if (size > UINT32_MAX) {
        // Rare for a box built in memory; move the payload to make room for
        // the 64-bit size field.
        auto& buffer = out.buffer();
        buffer.insert(buffer.begin() + std::ptrdiff_t(start + 8), 8, 0);
        out.patch32(start, 1);
        out.patch64(start + 8, size + 8);
    } else {
        out.patch32(start, uint32_t(size));
    }
}

std::vector<uint8_t> Box::toBytes() const
{
    ByteWriter out;
    write(out);
    return std::move(out.buffer());
}

uint64_t Box::size() const
{
    ByteWriter out;
    write(out);
    return out.size();
}

Box* Box::findChild(FourCC type, size_t index) const
{
    for (const auto& child : children_)
        if (child->type() == type && index-- == 0) return child.get();
    return nullptr;
}

std::vector<Box*> Box::findChildren(FourCC type) const
{
    std::vector<Box*> found;
    for (const auto& child : children_)
        if (child->type() == type) found.push_back(child.get());
    return found;
}

Box* Box::findPath(std::string_view path) const
{
    const Box* current = this;
    while (!path.empty() && current) {
        size_t dot = path.find('.');
        std::string_view part = path.substr(0, dot);
        path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
        size_t index = 0;
        if (size_t bracket = part.find('['); bracket != std::string_view::npos) {
            for (size_t i = bracket + 1; i < part.size() && part[i] >= '0' && part[i] <= '9'; ++i)
                index = index * 10 + size_t(part[i] - '0');
            part = part.substr(0, bracket);
        }
        const Box* next = nullptr;
        for (const auto& child : current->children_) {
            if ((part == "*" || child->type() == fourcc(part)) && index-- == 0) {
                next = child.get();
                break;
            }
        }
        current = next;
    }
    return const_cast<Box*>(current);
}

Box* Box::addChild(std::unique_ptr<Box> child) { return insertChild(children_.size(), std::move(child)); }

Box* Box::insertChild(size_t index, std::unique_ptr<Box> child)
{
    if (!child) return nullptr;
    child->parent_ = this;
    if (index > children_.size()) index = children_.size();
    children_.insert(children_.begin() + std::ptrdiff_t(index), std::move(child));
    return children_[index].get();
}

size_t Box::indexOf(const Box* child) const
{
    for (size_t i = 0; i < children_.size(); ++i)
        if (children_[i].get() == child) return i;
    return children_.size();
}

std::unique_ptr<Box> Box::removeChild(Box* child)
{
    size_t i = indexOf(child);
    if (i == children_.size()) return nullptr;
    std::unique_ptr<Box> removed = std::move(children_[i]);
    children_.erase(children_.begin() + std::ptrdiff_t(i));
    removed->parent_ = nullptr;
    return removed;
}

size_t Box::removeChildren(FourCC type)
{
    size_t before = children_.size();
    std::erase_if(children_, [type](const std::unique_ptr<Box>& c) { return c->type() == type; });
    return before - children_.size();
}

std::unique_ptr<Box> Box::replaceChild(Box* old, std::unique_ptr<Box> replacement)
{
    size_t i = indexOf(old);
    if (i == children_.size() || !replacement) return nullptr;
    replacement->parent_ = this;
    std::swap(children_[i], replacement);
    replacement->parent_ = nullptr;
    return replacement;
}

bool FullBox::parseFields(ByteReader& in)
{
    version = in.u8();
    flags = in.u24();
    return in.ok() && parseFullFields(in) && in.ok();
}

void FullBox::writeFields(ByteWriter& out) const
{
    out.u8(writeVersion());
    out.u24(flags);
    writeFullFields(out);
}

std::string FileRangeBox::describe() const
{
    return std::to_string(payloadSize) + " bytes at " + std::to_string(payloadOffset);
}

// ---------------------------------------------------------------------------

namespace {

bool isUntyped(const Box& box) { return typeid(box) == typeid(Box); }

struct Registry {
    std::mutex lock;
    std::map<std::pair<FourCC, FourCC>, BoxCreator> creators;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

void ensureBuiltins()
{
    static std::once_flag once;
    std::call_once(once, registerBuiltinBoxes);
}

} // namespace

bool BoxRegistry::add(FourCC type, BoxCreator creator, FourCC parentType)
{
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    r.creators[{type, parentType}] = creator;
    return true;
}

std::unique_ptr<Box> BoxRegistry::create(FourCC type, FourCC parentType)
{
    ensureBuiltins();
    BoxCreator creator = nullptr;
    {
        Registry& r = registry();
        std::lock_guard guard(r.lock);
        // Most specific first: this type below this parent, any type below
        // this parent (the lists of tref), this type anywhere.
        auto it = r.creators.find({type, parentType});
        if (it == r.creators.end() && parentType != 0) it = r.creators.find({0, parentType});
        if (it == r.creators.end()) it = r.creators.find({type, 0});
        if (it != r.creators.end()) creator = it->second;
    }
    if (creator) return creator(type);
    return std::make_unique<Box>(type);
}

bool BoxRegistry::isRegistered(FourCC type, FourCC parentType)
{
    ensureBuiltins();
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    return r.creators.count({type, parentType}) || (parentType != 0 && r.creators.count({0, parentType})) ||
           r.creators.count({type, 0});
}

// ---------------------------------------------------------------------------

bool BoxParser::readHeader(ByteReader& in, uint64_t available, uint64_t fileOffset, Header& header)
{
    uint32_t size32 = in.u32();
    header.type = in.u32();
    header.headerSize = 8;
    if (!in.ok()) {
        MP4Log(MP4_LOG_ERROR, "invalid atom size: header at offset %" PRIu64 " is cut short", fileOffset);
        return false;
    }
    if (header.type == 0 || !fourccIsPrintable(header.type)) MP4Log(MP4_LOG_WARNING, "atom type %s is suspect", "");
    if (size32 == 1) {
        header.size = in.u64();
        header.headerSize = 16;
        if (!in.ok()) {
            MP4Log(MP4_LOG_ERROR, "invalid atom size: 64-bit header at offset %" PRIu64 " is cut short", fileOffset);
            return false;
        }
    } else if (size32 == 0) {
        header.size = available;
    } else {
        header.size = size32;
    }
    if (header.size < header.headerSize || header.size > available) {
        std::string printable = fourccIsPrintable(header.type) ? fourccString(header.type) : std::string();
        MP4Log(MP4_LOG_ERROR, "invalid atom size %" PRIu64 " of atom '%s' at offset %" PRIu64 " (%" PRIu64 " bytes available)",
               header.size, printable.c_str(), fileOffset, available);
        return false;
    }
    return true;
}

std::unique_ptr<Box> BoxParser::parsePayload(FourCC type, FourCC parentType, ByteReader payload, uint64_t fileOffset,
                                             int depth, bool* damaged)
{
    std::unique_ptr<Box> box = BoxRegistry::create(type, parentType);
    bool typed = !isUntyped(*box);
    if (typed) {
        ByteReader fields = payload;
        bool fieldsOk = box->parseFields(fields) && fields.ok();
        bool childrenOk = true;
        std::unique_ptr<Box> attempt;
        if (fieldsOk && box->hasChildren()) {
            if (depth >= kMaxDepth) {
                MP4Log(MP4_LOG_WARNING, "atom '%s' nested too deeply, kept as it is", fourccString(type).c_str());
                fieldsOk = false;
            } else {
                uint64_t childOffset = fileOffset + fields.position();
                childrenOk = parseChildren(fields.sub(fields.remaining()), childOffset, *box, depth + 1);
            }
        }
        if (fieldsOk) {
            // parseChildren may have kept a list's stray end bytes already.
            std::vector<uint8_t> rest = fields.rest();
            box->trailing.insert(box->trailing.end(), rest.begin(), rest.end());
            if (!childrenOk && damaged) *damaged = true;
            return box;
        }
        MP4Log(MP4_LOG_INFO, "atom '%s' could not be read, kept as it is", fourccString(type).c_str());
        box = std::make_unique<Box>(type);
    }
    box->trailing = payload.rest();
    return box;
}

bool BoxParser::parseChildren(ByteReader in, uint64_t fileOffset, Box& parent, int depth)
{
    bool intact = true;
    while (in.remaining() > 0) {
        uint64_t start = in.position();
        if (in.remaining() < 8) {
            // QuickTime ends some lists with a 32-bit zero; anything else is damage.
            bool zeros = true;
            for (size_t i = 0; i < in.remaining(); ++i) zeros = zeros && in.current()[i] == 0;
            if (!zeros) {
                MP4Log(MP4_LOG_ERROR, "invalid atom size: %zu stray bytes at offset %" PRIu64, in.remaining(),
                       fileOffset + start);
                intact = false;
            }
            parent.trailing = in.rest();
            break;
        }
        ByteReader headerReader = in;
        Header header;
        if (!readHeader(headerReader, in.remaining(), fileOffset + start, header)) {
            parent.trailing = in.rest();
            intact = false;
            break;
        }
        in.skip(header.headerSize);
        ByteReader payload = in.sub(size_t(header.size - header.headerSize));
        bool damaged = false;
        std::unique_ptr<Box> box =
            parsePayload(header.type, parent.type(), payload, fileOffset + start + header.headerSize, depth, &damaged);
        box->fileOffset = fileOffset + start;
        box->fileSize = header.size;
        box->largeSize = header.headerSize == 16;
        parent.addChild(std::move(box));
        if (damaged) intact = false;
    }
    return intact;
}

Box* BoxParser::retype(Box* box)
{
    if (!box || !isUntyped(*box) || !box->parent()) return nullptr;
    if (!BoxRegistry::isRegistered(box->type(), box->parent()->type())) return nullptr;
    ByteWriter payload;
    for (const auto& child : box->children()) child->write(payload);
    payload.bytes(box->trailing);
    auto typed = parsePayload(box->type(), box->parent()->type(), ByteReader(payload.buffer()), box->fileOffset + 8,
                              0, nullptr);
    if (isUntyped(*typed)) return nullptr;
    typed->fileOffset = box->fileOffset;
    typed->fileSize = box->fileSize;
    Box* result = typed.get();
    box->parent()->replaceChild(box, std::move(typed));
    return result;
}

} // namespace qx::mp4
