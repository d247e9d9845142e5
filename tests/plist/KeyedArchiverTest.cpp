// Keyed archives: nested objects by class name, the archive's keys, unknown classes and bad data.

#include <gtest/gtest.h>

#include "qxmedia/platform/plist/QXKeyedArchiver.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

// A small family shaped like the framework's archivable classes: a base
// track with a subclass, and a job owning them.
class TestTrack : public QXCoding {
public:
    std::string language = "und";
    CMTime duration = kCMTimeInvalid;

    std::string className() const override { return "TestTrack"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        coder.encodeObject(language, "language");
        coder.encodeCMTime(duration, "duration");
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
        if (auto text = coder.decodeObject("language"); text.string()) language = *text.string();
        duration = coder.decodeCMTime("duration");
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

class TestJob : public QXCoding {
public:
    std::shared_ptr<TestTrack> mainTrack;
    std::vector<std::shared_ptr<TestTrack>> tracks;
    QXValue tags;

    std::string className() const override { return "TestJob"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override
    {
        coder.encodeObject(mainTrack, "mainTrack");
        coder.encodeObject(tracks, "tracks");
        coder.encodeObject(tags, "tagsDict");
    }
    static std::shared_ptr<TestJob> initWithCoder(QXKeyedUnarchiver& coder)
    {
        auto job = std::make_shared<TestJob>();
        job->mainTrack = coder.decodeObjectOfClass<TestTrack>("mainTrack");
        job->tracks = coder.decodeArrayOfObjectsOfClass<TestTrack>("tracks");
        job->tags = coder.decodeObject("tagsDict");
        return job;
    }
};

QX_REGISTER_CODING_CLASS(TestTrack);
QX_REGISTER_CODING_CLASS(TestAudioTrack);
QX_REGISTER_CODING_CLASS(TestJob);

std::shared_ptr<TestJob> sampleJob()
{
    auto job = std::make_shared<TestJob>();
    auto video = std::make_shared<TestTrack>();
    video->language = "de";
    video->duration = CMTimeMake(90090, 30000);
    auto audio = std::make_shared<TestAudioTrack>();
    audio->volume = 0.5;
    audio->duration = kCMTimePositiveInfinity;
    job->mainTrack = video;
    job->tracks = {video, audio, nullptr};
    job->tags = QXDictionary {{"custom", "value"}, {"$class", "not a class"},
                              {"list", QXArray {1, QXValue(), QXURL("/a b/c")}}};
    return job;
}

QXDictionary& mainTrackOf(QXValue& archive)
{
    return *(*(*(*archive.dictionary())["$top"].dictionary())["root"].dictionary())["mainTrack"].dictionary();
}

} // namespace

TEST(KeyedArchiver, NestedObjectsRoundTripInBothFormats)
{
    const auto job = sampleJob();
    for (QXPropertyListFormat format : {QXPropertyListFormat::Binary, QXPropertyListFormat::XML}) {
        const auto back = QXKeyedUnarchiver::unarchivedObjectOfClass<TestJob>(
            *QXKeyedArchiver::archivedDataWithRootObject(*job, format));
        ASSERT_TRUE(back && back->mainTrack);
        EXPECT_EQ(back->mainTrack->language, "de");
        EXPECT_EQ(back->mainTrack->duration.timescale, 30000);
        // The class name chooses the subclass; null elements were left out.
        ASSERT_EQ(back->tracks.size(), 2u);
        auto audio = std::dynamic_pointer_cast<TestAudioTrack>(back->tracks[1]);
        ASSERT_TRUE(audio);
        EXPECT_EQ(audio->volume, 0.5);
        EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(audio->duration));
        // Plain values, including the reserved key and NSNull in a list.
        EXPECT_EQ(back->tags, job->tags) << back->tags.description();
    }
}

TEST(KeyedUnarchiver, UnknownClassesWrongClassesAndBadData)
{
    qxtest::LogCapture capture;
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*sampleJob());
    // An unregistered class inside: that object is missing, the rest decodes.
    mainTrackOf(archive).insert_or_assign("$class", QXValue("RemovedClass"));
    auto job = std::dynamic_pointer_cast<TestJob>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive));
    ASSERT_TRUE(job);
    EXPECT_FALSE(job->mainTrack);
    EXPECT_EQ(job->tracks.size(), 2u);
    EXPECT_TRUE(capture.contains("Cannot decode object of class RemovedClass", 2));

    // Asking for the wrong class gives null rather than a bad cast.
    EXPECT_FALSE(QXKeyedUnarchiver::unarchivedObjectOfClass<TestAudioTrack>(
        *QXKeyedArchiver::archivedDataWithRootObject(*sampleJob())));
    for (const QXData& bad : {QXData {}, QXData {'b', 'p', 'l', 'i', 's', 't'},
                              *QXPropertyListSerialization::dataWithPropertyList(
                                  QXDictionary {{"$top", QXDictionary {}}}, QXPropertyListFormat::XML)}) {
        QXErrorRef error;
        EXPECT_FALSE(QXKeyedUnarchiver::unarchiveObjectWithData(bad, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 4864);
    }
}
