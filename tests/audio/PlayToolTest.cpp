// brisvale-play run as a program: a real file played to its end on the disk driver, bad files
// and arguments refused with one line, and the usage on request.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

#include "support/TestMedia.h"

namespace {

struct ToolRun {
    int status = -1;
    std::string output;
};

ToolRun run(const std::string& command) {
    ToolRun r;
    FILE* pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    if (pipe == nullptr) return r;
    char buf[512];
    while (std::fgets(buf, sizeof buf, pipe) != nullptr) {
        r.output += buf;
    }
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

TEST(PlayTool, PlaysARealFileToItsEndWithTagsAndProgress) {
    brisvale::test::TempDir dir;
    const std::string path = dir.file("tune.flac");
    brisvale::test::encodeFile(path, {"flac", "flac", 44100, 2, {{"title", "Small Tune"}, {"artist", "Test"}}, {}},
                               brisvale::test::makeSignal(44100 * 3 / 2, 2, 44100));
    const ToolRun r = run(std::string(BRISVALE_PLAY) + " --volume 0.5 --eq 2,0,-1 '" + path + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Title    Small Tune\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Duration 0:01.5\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("0:01.5 / 0:01.5\n"), std::string::npos) << "the progress line reaches the end\n" << r.output;
}

TEST(PlayTool, RefusesBadFilesAndArgumentsWithOneLine) {
    brisvale::test::TempDir dir;
    const std::string junk = dir.file("junk.mp3");
    std::ofstream(junk) << "this is not audio at all, just text pretending to be a song";
    ToolRun r = run(std::string(BRISVALE_PLAY) + " '" + junk + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "brisvale-play: " + junk + ": not a playable audio file\n");

    r = run(std::string(BRISVALE_PLAY) + " --volume 2 '" + junk + "'");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;

    r = run(std::string(BRISVALE_PLAY) + " '" + junk + "' --volume");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.output, "brisvale-play: --volume needs a value\n");

    // A FIFO blocks whoever opens it for reading until a writer comes: refused at once (the
    // timeout only ends a run that blocks).
    const std::string fifo = dir.file("music.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    r = run("timeout 5 " + std::string(BRISVALE_PLAY) + " '" + fifo + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "brisvale-play: " + fifo + ": not a regular file\n");
}

TEST(PlayTool, HelpPrintsTheUsageAndEveryOption) {
    const ToolRun r = run(std::string(BRISVALE_PLAY) + " --help");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output.rfind("Usage: brisvale-play [--eq g0,...,g9] [--volume V] FILE\n", 0), 0u) << r.output;
    EXPECT_NE(r.output.find("\n  --eq g0,...,g9 "), std::string::npos);
    EXPECT_NE(r.output.find("\n  --volume V "), std::string::npos);
}

} // namespace
