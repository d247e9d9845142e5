// dump and optimize.

#include "Commands.h"

#include "qxmedia/mp4/MP4File.h"

#include <cstdio>
#include <iostream>

using namespace qx::mp4;

namespace qxmp4 {

namespace {

std::string printableType(FourCC type)
{
    std::string text = fourccString(type);
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) c = '.';
    return text;
}

void dumpBox(const Box& box, int depth)
{
    std::string line(size_t(depth) * 2, ' ');
    line += printableType(box.type());
    line += " [" + std::to_string(box.fileSize ? box.fileSize : box.size()) + "]";
    if (box.fileSize) line += " @" + std::to_string(box.fileOffset);
    std::string fields = box.describe();
    if (!fields.empty()) line += "  " + fields;
    std::cout << line << '\n';
    for (const auto& child : box.children()) dumpBox(*child, depth + 1);
}

} // namespace

int dumpCommand(const Arguments& arguments)
{
    if (arguments.size() != 1) return usage("dump", "FILE");
    auto file = MP4File::read(arguments[0]);
    if (!file) return fail("cannot read \"" + arguments[0] + "\" as MP4");
    for (const auto& box : file->root().children()) dumpBox(*box, 0);
    for (MP4Track* track : file->tracks()) {
        std::cout << "track " << track->id() << ": " << fourccString(track->type()) << " "
                  << fourccString(track->mediaDataName()) << ", " << track->sampleCount() << " samples, language "
                  << track->language();
        if (!track->name().empty()) std::cout << ", name \"" << track->name() << "\"";
        std::cout << '\n';
    }
    return file->damaged() ? fail("\"" + arguments[0] + "\" is damaged") : 0;
}

int optimizeCommand(const Arguments& arguments)
{
    if (arguments.size() != 2) return usage("optimize", "IN OUT");
    if (!MP4File::optimize(arguments[0], arguments[1])) return fail("cannot optimize \"" + arguments[0] + "\"");
    return 0;
}

} // namespace qxmp4
