// Edits that cannot break a file: every interruption of the write order,
// leftovers of interrupted edits, concurrent editors, abandoned edits, and
// tables that point outside the file.

#include "MP4TestSupport.h"

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

#include <gtest/gtest.h>

#include <functional>
#include <sys/wait.h>
#include <unistd.h>

using namespace qx::mp4;
using mp4test::bytesOf;
using mp4test::streamHash;
using mp4test::writeBytes;

namespace {

// One second of video titled "old", with `flags` for the layout.
std::vector<uint8_t> movieBytes(const std::string& name, const std::string& flags)
{
    auto path = qxtest::generate(name, "-f lavfi -i testsrc2=size=160x120:rate=25:duration=1 -c:v libx264 "
                                       "-preset veryfast -metadata title=old " + flags);
    std::string text = qxtest::readFile(path);
    return {text.begin(), text.end()};
}

// Sets the title, and a comment of `commentSize` bytes to make moov grow.
bool edit(const std::filesystem::path& path, const std::string& title, size_t commentSize)
{
    auto file = MP4File::modify(path);
    if (!file) return false;
    MP4Tags tags;
    MP4TagsFetch(tags, *file);
    tags.name = title;
    tags.comments = std::string(commentSize, 'c');
    return MP4TagsStore(tags, *file) && file->close();
}

std::string titleOf(const std::filesystem::path& path)
{
    auto file = MP4File::read(path);
    MP4Tags tags;
    if (file) MP4TagsFetch(tags, *file);
    return tags.name.value_or("<unreadable>");
}

} // namespace

// The edit is cut off after each of its writes and syncs in turn, as by a
// kill (nothing more reaches the file) or a full disk (the failure path
// runs). The file must keep every packet and hold the old or the new tags,
// and the next edit must succeed.
TEST(MP4SafeWrite, AnEditInterruptedAtAnyWriteLeavesAValidFile)
{
    struct Layout {
        const char* name;
        std::vector<uint8_t> start;
        size_t commentSize; // of the interrupted edit
    };
    auto dir = qxtest::makeTempDir("mp4-safe-interrupt");
    auto faststart = movieBytes("mp4-safe-faststart.mp4", "-movflags +faststart");
    // moov at the end and a free slot in front that takes a small one.
    writeBytes(dir / "prep.mp4", faststart);
    ASSERT_TRUE(edit(dir / "prep.mp4", "old", 3000));
    std::vector<Layout> layouts = {
        {"appended at the end", faststart, 2000},
        {"into the free space after moov", movieBytes("mp4-safe-reserved.mp4", "-moov_size 8000"), 2000},
        {"into the free space before moov", bytesOf(dir / "prep.mp4"), 10},
    };
    auto path = dir / "edit.mp4";
    for (const Layout& layout : layouts) {
        writeBytes(path, layout.start);
        const std::string hash = streamHash(path);
        for (bool killed : {true, false}) {
            bool completed = false;
            for (int writes = 0; !completed && writes < 30; ++writes) {
                SCOPED_TRACE(std::string(layout.name) + (killed ? ", killed" : ", failed") + " after " +
                             std::to_string(writes) + " operations");
                writeBytes(path, layout.start);
                MP4File::failWritesAfter(writes, killed);
                completed = edit(path, "new", layout.commentSize);
                MP4File::failWritesAfter(-1, false);
                const std::string title = titleOf(path);
                // Not completed: cut off before the switch, or right after it.
                EXPECT_TRUE(title == "new" || (!completed && title == "old")) << title;
                EXPECT_EQ(streamHash(path), hash);
                if (!killed && title == "old") {
                    EXPECT_EQ(std::filesystem::file_size(path), layout.start.size()) << "what was appended is cut off";
                }
                ASSERT_TRUE(edit(path, "again", layout.commentSize)) << "the next edit clears any leftover";
                EXPECT_EQ(titleOf(path), "again");
                EXPECT_FALSE(MP4File::read(path)->damaged());
            }
            EXPECT_TRUE(completed);
        }
    }
}

TEST(MP4SafeWrite, LeftoversAndOpenEndedBoxesAreRepairedNotRefused)
{
    auto dir = qxtest::makeTempDir("mp4-safe-leftover");
    auto path = dir / "f.mp4";
    auto moovLast = movieBytes("mp4-safe-moovlast.mp4", "");
    const std::string hash = [&] {
        writeBytes(path, moovLast);
        return streamHash(path);
    }();
    auto moovAt = [&](const std::vector<uint8_t>& bytes) {
        writeBytes(path, bytes);
        return MP4File::read(path)->moov()->fileOffset;
    };
    struct Case {
        const char* name;
        std::function<void(std::vector<uint8_t>&)> damage;
    };
    const Case cases[] = {
        {"half a moov appended", [&](auto& b) {
             uint64_t at = moovAt(b);
             b.insert(b.end(), b.begin() + std::ptrdiff_t(at), b.begin() + std::ptrdiff_t(at + (b.size() - at) / 2));
         }},
        {"a whole second moov", [&](auto& b) {
             uint64_t at = moovAt(b);
             b.insert(b.end(), b.begin() + std::ptrdiff_t(at), b.end());
         }},
        {"a moov of size 0 at the end", [&](auto& b) { std::fill_n(b.begin() + std::ptrdiff_t(moovAt(b)), 4, 0); }},
        {"five stray bytes", [](auto& b) { b.insert(b.end(), {1, 2, 3, 4, 5}); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto bytes = moovLast;
        c.damage(bytes);
        writeBytes(path, bytes);
        ASSERT_TRUE(edit(path, "fixed", 500));
        auto file = MP4File::read(path);
        EXPECT_FALSE(file->damaged());
        EXPECT_EQ(titleOf(path), "fixed");
        EXPECT_EQ(streamHash(path), hash);
    }
}

TEST(MP4SafeWrite, DamagedTablesAreRefusedAndFailedOpensWriteNothing)
{
    auto dir = qxtest::makeTempDir("mp4-safe-damage");
    auto path = dir / "f.mp4";
    auto good = movieBytes("mp4-safe-moovlast.mp4", "");
    struct Case {
        const char* name;
        std::function<void(MP4Track&, uint64_t fileSize)> damage;
    };
    const Case cases[] = {
        {"stsz counting 0xFFFFFFFF samples", [](MP4Track& t, uint64_t) {
             t.stsz()->constantSize = 1;
             t.stsz()->constantCount = UINT32_MAX;
         }},
        {"a chunk offset past the end", [](MP4Track& t, uint64_t size) { t.stco()->offsets.back() = size + 4096; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        writeBytes(path, good);
        {
            auto file = MP4File::modify(path);
            c.damage(*file->track(1), file->fileSize());
            ASSERT_TRUE(file->close());
        }
        mp4test::LogLines log;
        auto before = bytesOf(path);
        EXPECT_TRUE(MP4File::read(path)->damaged());
        EXPECT_TRUE(log.reportsDamage());
        EXPECT_FALSE(MP4File::modify(path));
        EXPECT_FALSE(MP4File::optimize(path, dir / "out.mp4"));
        EXPECT_FALSE(std::filesystem::exists(dir / "out.mp4"));
        EXPECT_EQ(bytesOf(path), before);
    }
    // Inputs without moov, and an edit given up without close(): nothing is written.
    for (std::vector<uint8_t> bytes : {std::vector<uint8_t> {}, std::vector<uint8_t> {7},
                                       std::vector<uint8_t>(good.begin(), good.end() - 100), good}) {
        writeBytes(path, bytes);
        if (auto file = MP4File::modify(path)) {
            MP4SetChapters(*file, {{300, "A"}, {300, "B"}}, MP4ChapterTypeAny); // appends samples
            file->track(1)->setName("abandoned");
        }
        EXPECT_EQ(bytesOf(path), bytes);
    }
}

TEST(MP4SafeWrite, ConcurrentEditsOfOneFileAllLand)
{
    auto path = qxtest::makeTempDir("mp4-safe-lock") / "f.mp4";
    writeBytes(path, movieBytes("mp4-safe-faststart.mp4", "-movflags +faststart"));
    constexpr int kEditors = 6;
    std::vector<pid_t> children;
    for (int i = 0; i < kEditors; ++i) {
        pid_t child = fork();
        if (child == 0) {
            auto file = MP4File::modify(path);
            bool ok = file && MP4ItmfAddItem(*file, MP4ItmfItemAlloc("org.test", "k" + std::to_string(i), "v")) &&
                      file->close();
            _exit(ok ? 0 : 1);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    auto file = MP4File::read(path);
    EXPECT_EQ(MP4ItmfGetItemsByMeaning(*file, "org.test", "").size(), size_t(kEditors));
}
