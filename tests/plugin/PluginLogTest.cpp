// The plug-in's own log: its file, and the road of a message in it.
#include <fstream>

#include "plugin/UsbRedirectionLogger.h"
#include "tests/plugin/PluginUnderTest.h"
#include "tests/support/Pattern.h"

namespace {

namespace fs = std::filesystem;

class PluginLog : public PluginUnderTest {
protected:
    static std::string LogFolder() { return tempFolder + "/corvex-tester"; }

    // The one log file of the folder, which goes with the reading.
    static Texts TakeLog(std::string* name = nullptr) {
        Texts lines;
        for (const auto& entry : fs::directory_iterator(LogFolder())) {
            EXPECT_TRUE(lines.empty()) << "more than one file";
            if (name) *name = entry.path().filename().string();
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) lines.push_back(line);
        }
        fs::remove_all(LogFolder());
        return lines;
    }

    // The parts come in this order in lines, one in each.
    static void ExpectInOrder(const Texts& lines, const Texts& parts) {
        auto line = lines.begin();
        for (const std::string& part : parts) {
            line = std::find_if(line, lines.end(), [&](const auto& text) { return text.find(part) != text.npos; });
            ASSERT_NE(line, lines.end()) << part;
            ++line;
        }
    }
};

TEST_F(PluginLog, LiesInTheUsersFolderFromHeaderToLastLine) {
    StartReady();
    Exit();
    std::string name;
    const Texts lines = TakeLog(&name);
    EXPECT_TRUE(Finds(name, "^velmora-UsbRedirectionClient-0-" + std::to_string(getpid()) +
                                "__\\d{4}-\\d\\d-\\d\\d-\\d\\d-\\d\\d\\.log$"))
        << name;
    ExpectInOrder(lines, {" A Logger::LogStartupInfo(): version=", " A OS Version: Linux",
                          " A Time Zone: ", " A Log Level: INFO (read from )",
                          " I UsbRedirectionLogger::Start(): USBRedirection - Logger started with default FileWriter.",
                          " I UsbRedirectionClient::OnClientInit(): Power on Usbd service.",
                          " I QSCService_PluginCreateInstance(): Enter", " I QSCService_PluginCreateInstance(): Exit",
                          " I UsbRedirectionClientPlugin::OnReady(): Transport is ready now.",
                          " I QSCService_PluginDestroyInstance(): Enter", " I QSCService_PluginDestroyInstance(): Exit",
                          " I QSCService_PluginExit(): Enter",
                          " I UsbRedirectionClient::OnClientExit(): Power off Usbd service."});
    EXPECT_NE(lines.back().find(" A Shutdown: *** LOG FILE COMPLETE ***"), std::string::npos) << lines.back();
}

TEST_F(PluginLog, AtTraceShowsTheWholeRoadOfAMessageAlsoInALoggerThatRanBefore) {
    UsbRedirectionLogger logger;
    ASSERT_TRUE(logger.Start("UsbRedirectionLogger", "UsbRedirectionClient", "", kLogTrace, true));
    EXPECT_TRUE(logger.Start("UsbRedirectionClient", "not read"));
    StartReady();
    ASSERT_TRUE(daemon.postMsgFast(4, reinterpret_cast<const unsigned char*>("data")));
    const std::vector<uint8_t> content{'b', 'a', 'c', 'k'};
    service.Deliver(kData, 1, {uint32_t{7}, uint64_t{64}, uint64_t{2}, content});
    Exit();
    ExpectInOrder(TakeLog(), {" I UsbRedirectionLogger::Start(): Start logging was called after the logger was "
                              "initialized. Returning.",
                              " T RPCPluginInstance::CreateMessage(): Enter",
                              " T UsbRedirectionClientPlugin::USBRedirectionPostMsgFast(): Invoke postMsgFast message. "
                              "Blob size is [4].",
                              " T RPCPluginInstance::InvokeMessage(): Enter",
                              " T UsbRedirectionClientPlugin::OnInvoke(): Received package from peer.",
                              " T UsbPostMsgFastClientCommand::ParseRequest(): Message queue id is [7].",
                              " T UsbPostMsgFastClientCommand::ParseRequest(): Blob size is [4]."});
}

}  // namespace
