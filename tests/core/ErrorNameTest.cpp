// Errors by name, and the facade's two simple hooks.

#include <gtest/gtest.h>

#include <cerrno>

extern "C" {
#include <libavutil/error.h>
}

#include "qxmedia/core/QXMedia.h"

namespace {

struct NamedError {
    QXErrorDomain domain;
    int64_t code;
    const char* name;
    const char* description;
};

// One number means different things in different domains, and FFmpeg's
// codes travel in the framework's own domain.
const NamedError kNamedErrors[] = {
    {QXMediaErrorDomain, QXErrorFailedToOpenFile, "QXErrorFailedToOpenFile", "Failed to open File"},
    {QXMediaErrorDomain, -13008, "", "Error number -13008 occurred"},
    {QXMediaErrorDomain, AVERROR_EOF, "AVERROR_EOF", "End of file"},
    {QXMediaErrorDomain, AVERROR(ENOENT), "AVERROR(ENOENT)", "No such file or directory"},
    {QXMediaErrorDomain, QXErrorDiskFull, "QXErrorDiskFull", "Writing failed because Disk is Full"},
    {NSCocoaErrorDomain, 4, "QXErrorFileNoSuchFile", nullptr},
    {NSPOSIXErrorDomain, 4, "EINTR", nullptr},
    {NSOSStatusErrorDomain, -12743, "QXErrorCMSampleBufferInvalidMediaFormat", nullptr},
    {NSOSStatusErrorDomain, 0x77686174, "QXErrorAudioConverterUnspecified", "Error number 2003329396 (what) occurred"},
    {AVFoundationErrorDomain, QXErrorNoImageAtTime, "QXErrorNoImageAtTime", nullptr},
    {AVFoundationErrorDomain, -13001, "", nullptr},
};

class ErrorName : public testing::TestWithParam<NamedError> {};

TEST_P(ErrorName, NamesTheCodeInItsDomain)
{
    const NamedError& expected = GetParam();
    const QXErrorRef error = QXMedia::errorWithDomain(expected.domain, expected.code);
    EXPECT_EQ(error->codeName(), expected.name);
    if (expected.description) {
        EXPECT_EQ(error->localizedDescription(), expected.description);
    }
    // The summary leads with the name when there is one, and always says code and domain.
    const std::string where = std::to_string(expected.code) + ", " + expected.domain + ")";
    EXPECT_NE(error->summary().find(where), std::string::npos) << error->summary();
    EXPECT_EQ(error->summary().rfind(expected.name, 0), 0u) << error->summary();
}

INSTANTIATE_TEST_SUITE_P(Table, ErrorName, testing::ValuesIn(kNamedErrors));

TEST(QXMediaHooks, LogHandlerGetsFinishedLinesUntilRemoved)
{
    QXMedia& media = QXMedia::sharedMedia();
    std::vector<std::pair<int32_t, std::string>> lines;
    media.setLogHandler([&](int32_t flag, const std::string& line) { lines.emplace_back(flag, line); });
    QXLogWarning("%d%% of %s", 50, "it");
    QXLogError("%s", "a 100% literal");
    media.setLogHandler({});
    QXLogWarning("not seen");
    const std::vector<std::pair<int32_t, std::string>> expected {{QXLogFlagWarning, "50% of it"},
                                                                 {QXLogFlagError, "a 100% literal"}};
    EXPECT_EQ(lines, expected);
}

TEST(QXMediaHooks, ErrorHandlerSeesEveryErrorAsMadeUntilRemoved)
{
    QXMedia& media = QXMedia::sharedMedia();
    std::vector<std::string> seen;
    media.setErrorHandler([&](const QXError& error) { seen.push_back(error.codeName()); });
    QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorFailedToAddTrack);
    QXMedia::errorWithDomain(NSCocoaErrorDomain, QXErrorUserCancelled, {{NSLocalizedDescriptionKey, "stopped"}});
    media.setErrorHandler({});
    QXMedia::errorWithDomain(QXMediaErrorDomain, QXErrorDiskFull);
    EXPECT_EQ(seen, (std::vector<std::string> {"QXErrorFailedToAddTrack", "QXErrorUserCancelled"}));
}

} // namespace
