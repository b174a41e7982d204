#include "core/runtimes/LocalLLMServerProcess.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/Json.h"
#include "core/runtimes/LocalLLMInstallerError.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace quorlin {

namespace {

struct ProcessStat {
    char state = '?';
    std::uint64_t startTime = 0; // clock ticks after boot
};

// The state and start time /proc gives a process; nothing when there is no such process.
std::optional<ProcessStat> readStat(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return std::nullopt;
    }
    // The command name in parentheses may itself hold blanks and parentheses.
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(line.substr(close + 1));
    std::string state;
    fields >> state;
    // The start time is field 22; the state was field 3.
    std::string skipped;
    for (int field = 4; field < 22; ++field) {
        fields >> skipped;
    }
    ProcessStat stat;
    if (state.empty() || !(fields >> stat.startTime)) {
        return std::nullopt;
    }
    stat.state = state.front();
    return stat;
}

// Tells this boot from the next, since a process id and start time can come round again
// after a restart.
std::string bootID() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& extra) {
    std::vector<std::string> entries;
    for (const auto& [name, value] : processEnvironment(extra)) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

class SpawnAttributes {
public:
    SpawnAttributes() { ::posix_spawnattr_init(&attributes_); }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
};

class SpawnFileActions {
public:
    SpawnFileActions() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

// A session of its own, every signal unblocked and at its default action: the command
// line blocks SIGINT and SIGTERM to read them itself, and a child would inherit that.
void detach(SpawnAttributes& attributes) {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_setsigmask(attributes.get(), &none);
    ::posix_spawnattr_setsigdefault(attributes.get(), &all);
    ::posix_spawnattr_setflags(
        attributes.get(),
        static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
}

void redirect(SpawnFileActions& actions, const std::filesystem::path& logFile) {
    ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, logFile.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_spawn_file_actions_adddup2(actions.get(), STDOUT_FILENO, STDERR_FILENO);
    // Descriptors of this process (sockets, locks) must not live on in the server.
    ::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
}

void removeQuietly(const std::filesystem::path& file) {
    std::error_code ignored; // a record that can't be removed is found stale again next time
    std::filesystem::remove(file, ignored);
}

} // namespace

LocalLLMServerProcess::LocalLLMServerProcess(pid_t pid, std::uint64_t startTime,
                                             std::filesystem::path executable, std::string address)
    : pid_(pid), startTime_(startTime), executable_(std::move(executable)),
      address_(std::move(address)) {}

LocalLLMServerProcess
LocalLLMServerProcess::launch(const std::filesystem::path& executable,
                              const std::vector<std::string>& arguments,
                              const std::map<std::string, std::string>& extraEnvironment,
                              const std::filesystem::path& logFile, std::string address) {
    std::vector<std::string> argumentStrings{executable.string()};
    argumentStrings.insert(argumentStrings.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = environmentWith(extraEnvironment);
    auto argv = pointers(argumentStrings);
    auto envp = pointers(environment);
    SpawnAttributes attributes;
    SpawnFileActions actions;
    detach(attributes);
    redirect(actions, logFile);

    pid_t pid = 0;
    if (const int error = ::posix_spawn(&pid, executable.c_str(), actions.get(), attributes.get(),
                                        argv.data(), envp.data());
        error != 0) {
        throw LocalLLMInstallerError::processFailed("Couldn't start " + executable.string() + ": " +
                                                    std::strerror(error));
    }
    // A child that ended at once is a zombie until reaped, so its start time is there.
    const auto stat = readStat(pid);
    return {pid, stat ? stat->startTime : 0, executable, std::move(address)};
}

std::optional<LocalLLMServerProcess>
LocalLLMServerProcess::fromRecord(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        return std::nullopt;
    }
    std::optional<LocalLLMServerProcess> process;
    try {
        const auto record = parseJsonOrDiscarded(readFile(file, 64 * 1024));
        if (record.is_object() && record.value("bootID", "") == bootID() &&
            record.contains("pid") && record["pid"].is_number_integer() &&
            record.contains("startTime") && record["startTime"].is_number_unsigned()) {
            process = LocalLLMServerProcess(
                record["pid"].get<pid_t>(), record["startTime"].get<std::uint64_t>(),
                record.value("executable", ""), record.value("address", ""));
        }
    } catch (const std::exception&) {
        // An unreadable record names no process: treated as stale below.
    }
    if (!process || process->pid_ <= 0 || !process->running()) {
        removeQuietly(file);
        return std::nullopt;
    }
    return process;
}

void LocalLLMServerProcess::writeRecord(const std::filesystem::path& file) const {
    const nlohmann::json record{{"pid", pid_},
                                {"startTime", startTime_},
                                {"bootID", bootID()},
                                {"executable", executable_.string()},
                                {"address", address_}};
    writeFileAtomically(file, record.dump() + "\n");
}

bool LocalLLMServerProcess::running() const {
    const auto stat = readStat(pid_);
    if (!stat || stat->startTime != startTime_) {
        return false;
    }
    if (stat->state == 'Z' || stat->state == 'X') {
        // Ended. When it is our child only we can reap it; otherwise its parent will.
        ::waitpid(pid_, nullptr, WNOHANG);
        return false;
    }
    return true;
}

void LocalLLMServerProcess::stop(std::chrono::milliseconds grace,
                                 std::chrono::milliseconds step) const {
    if (!running()) {
        return;
    }
    ::kill(-pid_, SIGTERM);
    for (auto waited = std::chrono::milliseconds(0); waited < grace; waited += step) {
        if (!running()) {
            return;
        }
        std::this_thread::sleep_for(step);
    }
    if (!running()) {
        return;
    }
    ::kill(-pid_, SIGKILL);
    // SIGKILL can't be refused; the wait is for the parent to reap it.
    for (int attempt = 0; attempt < 40 && running(); ++attempt) {
        std::this_thread::sleep_for(step / 5);
    }
}

} // namespace quorlin
