// Keyed archives: nested objects by class name, the archive's keys, defaults, unknown and renamed classes, images.

#include <gtest/gtest.h>

#include "qxmedia/platform/plist/QXKeyedArchiver.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

// A small family shaped like the framework's archivable classes: a base
// track with a subclass, chapters with times, and a list owning both.
class TestTrack : public QXCoding {
public:
    int32_t trackID = 0;
    std::string language = "und";
    int64_t flags = 0;
    CMTime duration = kCMTimeInvalid;
    QXURL sourceURL;

    std::string className() const override { return "TestTrack"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        coder.encodeInt(trackID, "trackID");
        coder.encodeObject(language, "language");
        coder.encodeInteger(flags, "flags");
        coder.encodeCMTime(duration, "duration");
        if (!sourceURL.empty()) coder.encodeObject(sourceURL, "sourceURL");
    }
    static std::shared_ptr<TestTrack> initWithCoder(QXKeyedUnarchiver& coder)
    {
        auto track = std::make_shared<TestTrack>();
        track->decodeBase(coder);
        return track;
    }

protected:
    void decodeBase(QXKeyedUnarchiver& coder)
    {
        trackID = coder.decodeInt("trackID");
        if (auto text = coder.decodeObject("language"); text.string()) language = *text.string();
        flags = coder.decodeInteger("flags", 1);
        duration = coder.decodeCMTime("duration");
        if (auto url = coder.decodeObject("sourceURL"); url.url()) sourceURL = *url.url();
    }
};

class TestAudioTrack : public TestTrack {
public:
    double volume = 1.0;
    std::string className() const override { return "TestAudioTrack"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        TestTrack::encodeWithCoder(coder);
        coder.encodeDouble(volume, "volume");
    }
    static std::shared_ptr<TestAudioTrack> initWithCoder(QXKeyedUnarchiver& coder)
    {
        auto track = std::make_shared<TestAudioTrack>();
        track->decodeBase(coder);
        track->volume = coder.decodeDouble("volume", 1.0);
        return track;
    }
};

class TestChapter : public QXCoding {
public:
    CMTime timestamp = kCMTimeZero;
    std::string title;
    std::string className() const override { return "TestChapter"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        coder.encodeCMTime(timestamp, "timestamp");
        coder.encodeObject(title, "title");
    }
    static std::shared_ptr<TestChapter> initWithCoder(QXKeyedUnarchiver& coder)
    {
        auto chapter = std::make_shared<TestChapter>();
        chapter->timestamp = coder.decodeCMTime("timestamp");
        if (auto text = coder.decodeObject("title"); text.string()) chapter->title = *text.string();
        return chapter;
    }
};

class TestJob : public QXCoding {
public:
    bool optimize = false;
    int64_t status = 0;
    std::shared_ptr<TestTrack> mainTrack;
    std::vector<std::shared_ptr<TestTrack>> tracks;
    std::vector<std::shared_ptr<TestChapter>> chapters;
    QXValue tags;
    QXDate created {};
    QXData cookie;

    std::string className() const override { return "TestJob"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        coder.encodeBool(optimize, "optimize");
        coder.encodeInteger(status, "status");
        coder.encodeObject(mainTrack, "mainTrack");
        coder.encodeObject(tracks, "tracks");
        coder.encodeObject(chapters, "chapters");
        coder.encodeObject(tags, "tagsDict");
        coder.encodeObject(created, "created");
        coder.encodeObject(cookie, "cookie");
    }
    static std::shared_ptr<TestJob> initWithCoder(QXKeyedUnarchiver& coder)
    {
        auto job = std::make_shared<TestJob>();
        job->optimize = coder.decodeBool("optimize");
        job->status = coder.decodeInteger("status");
        job->mainTrack = coder.decodeObjectOfClass<TestTrack>("mainTrack");
        job->tracks = coder.decodeArrayOfObjectsOfClass<TestTrack>("tracks");
        job->chapters = coder.decodeArrayOfObjectsOfClass<TestChapter>("chapters");
        job->tags = coder.decodeObject("tagsDict");
        if (auto date = coder.decodeObject("created"); date.date()) job->created = *date.date();
        if (auto data = coder.decodeObject("cookie"); data.data()) job->cookie = *data.data();
        return job;
    }
};

QX_REGISTER_CODING_CLASS(TestTrack);
QX_REGISTER_CODING_CLASS(TestAudioTrack);
QX_REGISTER_CODING_CLASS(TestChapter);
QX_REGISTER_CODING_CLASS(TestJob);

std::shared_ptr<TestJob> sampleJob()
{
    auto job = std::make_shared<TestJob>();
    job->optimize = true;
    job->status = 6;
    auto video = std::make_shared<TestTrack>();
    video->trackID = 1;
    video->language = "de";
    video->flags = 5;
    video->duration = CMTimeMake(90090, 30000);
    video->sourceURL = "/media/Film.mkv";
    auto audio = std::make_shared<TestAudioTrack>();
    audio->trackID = 2;
    audio->volume = 0.5;
    audio->duration = kCMTimePositiveInfinity;
    job->mainTrack = video;
    job->tracks = {video, audio, nullptr};
    for (int i = 0; i < 3; ++i) {
        auto chapter = std::make_shared<TestChapter>();
        chapter->timestamp = CMTimeMakeWithEpoch(i * 60000, 1000, 0);
        chapter->title = "Kapitel " + std::to_string(i + 1);
        job->chapters.push_back(chapter);
    }
    job->tags = QXDictionary {{"custom", "value"}, {"$class", "not a class"},
                              {"list", QXArray {1, QXValue(), QXURL("/a b/c")}}};
    job->created = QXDate(std::chrono::seconds(1588327200));
    job->cookie = {0x12, 0x10};
    return job;
}

} // namespace

TEST(KeyedArchiver, NestedObjectsRoundTripInBothFormats)
{
    const auto job = sampleJob();
    for (QXPropertyListFormat format : {QXPropertyListFormat::Binary, QXPropertyListFormat::XML}) {
        const std::optional<QXData> data = QXKeyedArchiver::archivedDataWithRootObject(*job, format);
        ASSERT_TRUE(data);
        const auto back = QXKeyedUnarchiver::unarchivedObjectOfClass<TestJob>(*data);
        ASSERT_TRUE(back);
        EXPECT_TRUE(back->optimize);
        EXPECT_EQ(back->status, 6);
        ASSERT_TRUE(back->mainTrack);
        EXPECT_EQ(back->mainTrack->flags, 5);
        EXPECT_EQ(back->mainTrack->sourceURL, QXURL("/media/Film.mkv"));
        const CMTime duration = back->mainTrack->duration;
        EXPECT_EQ(duration.timescale, 30000);
        EXPECT_EQ(duration.flags, kCMTimeFlags_Valid);

        // The class name chooses the subclass; null elements were left out.
        ASSERT_EQ(back->tracks.size(), 2u);
        auto audio = std::dynamic_pointer_cast<TestAudioTrack>(back->tracks[1]);
        ASSERT_TRUE(audio);
        EXPECT_EQ(audio->volume, 0.5);
        EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(audio->duration));

        ASSERT_EQ(back->chapters.size(), 3u);
        EXPECT_EQ(back->chapters[2]->timestamp, CMTimeMake(120000, 1000));

        // Plain values, including the reserved key and NSNull in a list.
        EXPECT_EQ(back->tags, job->tags) << back->tags.description();
        EXPECT_EQ(back->created, job->created);
        EXPECT_EQ(back->cookie, job->cookie);
    }
}

TEST(KeyedArchiver, ArchivesUseTheClassesOwnKeys)
{
    const QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*sampleJob());
    const QXValue* root = archive.find("$top")->find("root");
    ASSERT_TRUE(root);
    EXPECT_EQ(*root->find("$class")->string(), "TestJob");
    const QXValue* track = root->find("mainTrack");
    EXPECT_EQ(*track->find("language")->string(), "de");
    EXPECT_EQ(track->find("duration")->find("timescale")->int64(), 30000);
    EXPECT_EQ(*track->find("sourceURL")->find("path")->string(), "/media/Film.mkv");
    EXPECT_EQ(*root->find("tracks")->array()->at(1).find("$class")->string(), "TestAudioTrack");
}

TEST(KeyedUnarchiver, AbsentKeysGiveDefaults)
{
    QXKeyedUnarchiver coder(QXDictionary {{"$class", "TestTrack"}, {"present", 3}, {"text", "x"},
                                          {"badTime", QXDictionary {{"value", 1}}}});
    EXPECT_TRUE(coder.containsValueForKey("present"));
    EXPECT_FALSE(coder.containsValueForKey("absent"));
    EXPECT_FALSE(coder.containsValueForKey("$class"));
    EXPECT_EQ(coder.className(), "TestTrack");
    EXPECT_EQ(coder.decodeInt64("absent", -2), -2);
    EXPECT_EQ(coder.decodeInt32("present"), 3);
    EXPECT_EQ(coder.decodeInt64("text", 9), 9); // not a number
    EXPECT_TRUE(coder.decodeBool("present"));
    EXPECT_EQ(coder.decodeDouble("absent", 1.5), 1.5);
    EXPECT_FALSE(coder.decodeObjectOfClass<TestTrack>("absent"));
    EXPECT_TRUE(coder.decodeArrayOfObjectsOfClass<TestTrack>("absent").empty());
    EXPECT_TRUE(CMTIME_IS_INVALID(coder.decodeCMTime("absent")));
    EXPECT_TRUE(CMTIME_IS_INVALID(coder.decodeCMTime("badTime")));

    // A job archived with no track and no chapters decodes with them empty.
    TestJob empty;
    const auto back = QXKeyedUnarchiver::unarchivedObjectOfClass<TestJob>(
        *QXKeyedArchiver::archivedDataWithRootObject(empty));
    ASSERT_TRUE(back);
    EXPECT_FALSE(back->mainTrack);
    EXPECT_TRUE(back->tags.isNull());
}

TEST(KeyedUnarchiver, UnknownClassesWrongClassesAndBadData)
{
    qxtest::LogCapture capture;
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*sampleJob());
    // An unregistered class inside: that object is missing, the rest decodes.
    (*(*(*archive.dictionary())["$top"].dictionary())["root"].dictionary())["mainTrack"].dictionary()->insert_or_assign(
        "$class", QXValue("RemovedClass"));
    auto job = std::dynamic_pointer_cast<TestJob>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive));
    ASSERT_TRUE(job);
    EXPECT_FALSE(job->mainTrack);
    EXPECT_EQ(job->tracks.size(), 2u);
    EXPECT_TRUE(capture.contains("Cannot decode object of class RemovedClass", 2));

    // Asking for the wrong class gives null rather than a bad cast.
    const QXData data = *QXKeyedArchiver::archivedDataWithRootObject(*sampleJob());
    EXPECT_FALSE(QXKeyedUnarchiver::unarchivedObjectOfClass<TestChapter>(data));

    for (const QXData& bad : {QXData {}, QXData {'b', 'p', 'l', 'i', 's', 't'},
                              *QXPropertyListSerialization::dataWithPropertyList(
                                  QXDictionary {{"$top", QXDictionary {}}}, QXPropertyListFormat::XML)}) {
        QXErrorRef error;
        EXPECT_FALSE(QXKeyedUnarchiver::unarchiveObjectWithData(bad, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 4864);
    }
}

TEST(KeyedUnarchiver, ClassOverridesWinOverTheRegistry)
{
    // A class renamed since the archive was written.
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*sampleJob());
    (*(*(*archive.dictionary())["$top"].dictionary())["root"].dictionary())["mainTrack"].dictionary()->insert_or_assign(
        "$class", QXValue("OldTrackName"));
    QXDictionary root = *archive.find("$top")->find("root")->dictionary();
    QXKeyedUnarchiver coder(root);
    int made = 0;
    coder.setClass("OldTrackName", [&made](QXKeyedUnarchiver& c) -> QXCodingRef {
        ++made;
        return TestAudioTrack::initWithCoder(c);
    });
    auto job = TestJob::initWithCoder(coder);
    EXPECT_EQ(made, 1);
    ASSERT_TRUE(std::dynamic_pointer_cast<TestAudioTrack>(job->mainTrack));
    EXPECT_EQ(job->mainTrack->language, "de");
}

TEST(KeyedArchiver, ImagesWithoutCodingHooksAreDropped)
{
    // Without the image module's hooks an image is dropped (with a warning)
    // and the rest of the archive stays intact. With them, images travel as
    // bytes: the chapter and metadata archive tests read real pictures back.
    QXKeyedArchiver plain;
    plain.encodeObject(QXValue(QXImageRef()), "artwork");
    plain.encodeObject(QXArray {QXValue(), "x"}, "artworks");
    EXPECT_FALSE(plain.encodedKeys().count("artwork"));
    QXKeyedUnarchiver back(plain.encodedKeys());
    const QXValue artworks = back.decodeObject("artworks");
    ASSERT_TRUE(artworks.array());
    EXPECT_TRUE(artworks.array()->at(0).isNull()); // the null marker survives
}
