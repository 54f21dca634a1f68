#include "bench/LogPeers.h"

#include <glog/logging.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

namespace {

// Date and time, thread, process, level and function, like a line of ours.
constexpr char kPattern[] = "%Y-%m-%d %H:%M:%S.%e <%t> [%P] %L %!: %v";

class Spdlog : public LogPeer {
public:
    Spdlog(const std::string& folder, bool async) : asynchronous(async) {
        if (asynchronous) {
            spdlog::init_thread_pool(8192, 1);
            logger = spdlog::basic_logger_mt<spdlog::async_factory>("bench", folder + "/spdlog.log", true);
        } else {
            logger = spdlog::basic_logger_mt("bench", folder + "/spdlog.log", true);
        }
        logger->set_pattern(kPattern);
    }
    void Line(int number) override { SPDLOG_LOGGER_INFO(logger, BENCH_LINE_FMT, BENCH_LINE_ARGS(number)); }
    void Finish() override {
        logger->flush();
        spdlog::drop("bench");
        logger.reset();
        if (asynchronous) spdlog::shutdown();
    }

private:
    const bool asynchronous;
    std::shared_ptr<spdlog::logger> logger;
};

class GlogPeer : public LogPeer {
public:
    explicit GlogPeer(const std::string& folder) {
        FLAGS_log_dir = folder;
        FLAGS_logtostderr = false;
        FLAGS_stderrthreshold = google::NUM_SEVERITIES;
        google::InitGoogleLogging("bench");
    }
    void Line(int number) override {
        LOG(INFO) << "Transfer " << number << " on endpoint 0x" << std::hex << 0x81 << std::dec << " of device "
                  << "1-4.2:1.0"
                  << " moved " << size_t{65536} << " bytes, status " << 0;
    }
    void Finish() override {
        google::FlushLogFiles(google::INFO);
        google::ShutdownGoogleLogging();
    }
};

class BarePeer : public LogPeer {
public:
    explicit BarePeer(const std::string& folder) : file(std::fopen((folder + "/bare.log").c_str(), "w")) {}
    void Line(int number) override {
        timeval now;
        gettimeofday(&now, nullptr);
        char text[512];
        const int length = std::snprintf(text, sizeof text, "%ld.%03ld <%08X> [%04X] I %s: " BENCH_LINE_PRINTF,
                                         static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec / 1000), 1u,
                                         static_cast<unsigned>(getpid()), __func__, BENCH_LINE_ARGS(number));
        std::lock_guard guard(lock);
        std::fwrite(text, 1, static_cast<size_t>(length), file);
    }
    void Finish() override { std::fclose(file); }

private:
    std::mutex lock;  // one line at a time
    std::FILE* const file;
};

}  // namespace

std::unique_ptr<LogPeer> LogPeer::SpdlogSync(const std::string& folder) {
    return std::make_unique<Spdlog>(folder, false);
}

std::unique_ptr<LogPeer> LogPeer::SpdlogAsync(const std::string& folder) {
    return std::make_unique<Spdlog>(folder, true);
}

std::unique_ptr<LogPeer> LogPeer::Glog(const std::string& folder) {
    return std::make_unique<GlogPeer>(folder);
}

std::unique_ptr<LogPeer> LogPeer::Bare(const std::string& folder) {
    return std::make_unique<BarePeer>(folder);
}
