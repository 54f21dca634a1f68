// What the programs say to arguments and files that they cannot use.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "tests/e2e/Program.h"

namespace {

using Args = std::vector<std::string>;

void ExpectRefused(const char* program, const Args& args, const std::string& reason) {
    const ProgramResult result = RunProgram(program, args);
    EXPECT_EQ(result.status, 2) << reason;
    EXPECT_EQ(result.out, "") << reason;
    EXPECT_EQ(result.err.rfind(std::string(program) + ": ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST(BadInput, ArgumentsAreRefusedWithOneLine) {
    struct Case {
        const char* program;
        Args args;
        const char* reason;
    };
    for (const Case& c : {Case{"usb-replay", {"--jsno"}, "unknown option --jsno"},
                          {"usb-replay", {"--loop", "none"}, "--loop takes a number"},
                          {"usb-replay", {"--threads"}, "--threads needs a value"},
                          {"usb-replay", {"--transport", "pigeon"}, "--transport takes unix or tcp"},
                          {"usb-replay", {"--clients", "0"}, "--clients takes a number"},
                          {"usb-replay", {"--clients", "2", "--agent-mode", "x"}, "--agent-mode takes single or multi"},
                          {"usb-agent", {}, "exactly one of --listen and --fd"},
                          {"usb-agent", {"--fd", "x"}, "--fd takes a file descriptor"},
                          {"usb-agent", {"--listen"}, "--listen needs a value"}}) {
        ExpectRefused(c.program, c.args, c.reason);
    }
}

using Image = std::vector<char>;

class BadCapture : public testing::Test {
protected:
    void SetUp() override {
        std::ifstream file(SOURCE_FOLDER "/captures/sample.pcap", std::ios::binary);
        image.assign(std::istreambuf_iterator<char>(file), {});
        ASSERT_GT(image.size(), 200u);
        path = testing::TempDir() + "bad-" + std::to_string(getpid()) + ".pcap";
    }
    void TearDown() override { unlink(path.c_str()); }

    void ExpectRefusedImage(const Image& bytes) {
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        ExpectRefused("usb-replay", {path}, path);
    }

    Image image;
    std::string path;
};

TEST_F(BadCapture, AMissingFile) {
    ExpectRefused("usb-replay", {path}, path);
}

TEST_F(BadCapture, AFolder) {
    ExpectRefused("usb-replay", {SOURCE_FOLDER}, SOURCE_FOLDER);
}

TEST_F(BadCapture, AFileThatEndsWithinARecord) {
    for (const size_t missing : {size_t{1}, image.size() / 2 + 1}) {
        SCOPED_TRACE(missing);
        ExpectRefusedImage(Image(image.begin(), image.end() - static_cast<ptrdiff_t>(missing)));
    }
}

TEST_F(BadCapture, AFileWithoutARecord) {
    ExpectRefusedImage(Image(image.begin(), image.begin() + 24));
}

TEST_F(BadCapture, AFileThatIsNoUsbCapture) {
    Image ethernet = image;
    ethernet[20] = 1;
    ExpectRefusedImage(ethernet);
    ExpectRefusedImage({'#', '!', '/', 'b', 'i', 'n', '/', 's', 'h', '\n'});
    ExpectRefusedImage({});
}

// One bad file among good ones refuses all before anything is started.
TEST_F(BadCapture, OneAmongGoodOnes) {
    ExpectRefused("usb-replay", {"--json", SOURCE_FOLDER "/captures/sample.pcap", path}, path);
    ExpectRefused("usb-replay", {"--clients", "2", SOURCE_FOLDER "/captures/sample.pcap", path}, path);
}

}  // namespace
