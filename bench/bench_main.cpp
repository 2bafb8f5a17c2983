// The benchmark program's entry: runs every benchmark with interleaved repetitions, then prints each hot
// path against its reference from the medians of the same run, with the bar it must hold and the goal.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

struct Median {
    double real;  // wall-clock seconds per iteration
    double cpu;   // seconds of the benchmark thread's CPU time per iteration
};

// Keeps the median times of every benchmark, keyed by its name without the repetition suffix.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" && !run.error_occurred &&
                run.iterations > 0) {
                const auto iterations = static_cast<double>(run.iterations);
                medians[key_of(run)] = {run.real_accumulated_time / iterations, run.cpu_accumulated_time / iterations};
            }
        ConsoleReporter::ReportRuns(runs);
    }
    static std::string key_of(const Run &run) {
        std::string key = run.run_name.function_name;
        if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
        return key;
    }
    std::map<std::string, Median> medians;
};

// How a row reads its two medians: a time ratio (ours / reference, lower is better), a speed-up
// (reference / ours, higher is better) or a share of the reference's throughput (reference / ours).
enum class Measure { ratio, speedup, share };

// Which median a row compares. A path that runs in the calling thread is timed by that thread's CPU
// time, which other work on a shared machine disturbs far less than the wall clock; a launch is timed
// by the wall clock, since the child's work happens in another process.
enum class Clock { cpu, wall };

struct Row {
    const char *path;
    const char *ours;
    const char *reference;
    Measure measure;
    Clock clock;
    double bar;   // must hold; 0: none
    double goal;  // aimed at; 0: none
};

// The table: each hot path against its floor or the best alternative.
const Row kRows[] = {
    {"crc16_compute 64 MiB vs byte table", "crc16/compute/67108864", "crc16/byte_table/67108864", Measure::speedup,
     Clock::cpu, 5.0, 0},
    {"crc16 portable path vs byte table", "crc16/portable/67108864", "crc16/byte_table/67108864", Measure::speedup,
     Clock::cpu, 5.0, 0},
    {"crc16_compute vs memory read", "crc16/compute/67108864", "memory_read/67108864", Measure::share, Clock::cpu, 0,
     0.30},
    {"base64decode 1 MiB vs EVP_DecodeBlock", "base64/base64decode/1048576", "base64/evp_decode_block/1048576",
     Measure::ratio, Clock::cpu, 2.0, 1.3},
    {"get_crc 256 MiB vs streaming MD5", "digest/get_crc", "digest/streaming_md5", Measure::ratio, Clock::cpu, 1.15,
     1.05},
    {"admin_system_call, 1 GiB caller", "launch/admin_system_call/1024", "launch/posix_spawn/1024", Measure::ratio,
     Clock::wall, 2.0, 1.3},
    {"admin_system_call, small caller", "launch/admin_system_call/0", "launch/posix_spawn/0", Measure::ratio,
     Clock::wall, 1.3, 1.1},
    {"shm read lock pair vs two semop", "lock/shm_read_pair", "lock/bare_semop_pair", Measure::ratio, Clock::cpu, 2.0,
     1.5},
    // Paths this work leaves alone, watched for a change: their ratio stays what it was before.
    {"mr_lock read pair vs pthread (hold)", "lock/mr_read_pair", "lock/pthread_read_pair", Measure::ratio, Clock::cpu,
     0, 0},
    {"admin_file_copy 4 KiB vs syscalls (hold)", "copy/admin_file_copy", "copy/bare_syscalls", Measure::ratio,
     Clock::cpu, 0, 0},
};

// Before-and-after rows: the literal code kept in the benchmarks against the library's path now.
const Row kBefore[] = {
    {"crc16 64 MiB: byte table / now", "crc16/byte_table/67108864", "crc16/compute/67108864", Measure::ratio,
     Clock::cpu, 0, 0},
    {"base64decode 1 MiB: one-byte reads / now", "base64/one_byte_reads/1048576", "base64/base64decode/1048576",
     Measure::ratio, Clock::cpu, 0, 0},
    {"get_crc 256 MiB: calloc+fread / now", "digest/literal_get_crc", "digest/get_crc", Measure::ratio, Clock::cpu, 0,
     0},
    {"1 GiB caller: fork launcher / now", "launch/fork_launcher/1024", "launch/admin_system_call/1024", Measure::ratio,
     Clock::wall, 0, 0},
    {"small caller: fork launcher / now", "launch/fork_launcher/0", "launch/admin_system_call/0", Measure::ratio,
     Clock::wall, 0, 0},
};

std::string human_time(double seconds) {
    char text[32];
    if (seconds >= 1e-3)
        snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    else if (seconds >= 1e-6)
        snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
    else
        snprintf(text, sizeof text, "%.0f ns", seconds * 1e9);
    return text;
}

std::string bound(Measure measure, double value) {
    if (value == 0) return "-";
    char text[32];
    if (measure == Measure::share)
        snprintf(text, sizeof text, ">= %.0f%%", value * 100);
    else
        snprintf(text, sizeof text, "%s %.2fx", measure == Measure::ratio ? "<=" : ">=", value);
    return text;
}

bool holds(Measure measure, double value, double limit) {
    if (limit == 0) return true;
    return measure == Measure::ratio ? value <= limit : value >= limit;
}

// Prints one table; returns the number of bars that did not hold.
int print_table(const char *title, const Row *rows, size_t count, const std::map<std::string, Median> &medians,
                bool judge) {
    printf("\n%s\n%-42s %11s %11s %9s %10s %10s %s\n", title, "path", "ours", "reference", "value", "bar", "goal",
           judge ? "verdict" : "");
    int missed = 0;
    for (size_t i = 0; i < count; ++i) {
        const Row &row = rows[i];
        auto ours = medians.find(row.ours), reference = medians.find(row.reference);
        if (ours == medians.end() || reference == medians.end()) {
            printf("%-42s %11s %11s %9s\n", row.path, "n/a", "n/a", "n/a");
            continue;
        }
        const double mine = row.clock == Clock::cpu ? ours->second.cpu : ours->second.real;
        const double theirs = row.clock == Clock::cpu ? reference->second.cpu : reference->second.real;
        const double value = row.measure == Measure::ratio ? mine / theirs : theirs / mine;
        char shown[24];
        if (row.measure == Measure::share)
            snprintf(shown, sizeof shown, "%.0f%%", value * 100);
        else
            snprintf(shown, sizeof shown, "%.2fx", value);
        const char *verdict = "";
        if (judge) {
            const bool bar = holds(row.measure, value, row.bar), goal = holds(row.measure, value, row.goal);
            verdict = !bar ? "BAR MISSED" : row.bar == 0 && row.goal == 0 ? "" : row.goal == 0 ? "holds"
                                                                                   : goal ? "goal met" : "bar holds";
            if (!bar) ++missed;
        }
        printf("%-42s %11s %11s %9s %10s %10s %s\n", row.path, human_time(mine).c_str(), human_time(theirs).c_str(),
               shown, bound(row.measure, row.bar).c_str(), bound(row.measure, row.goal).c_str(), verdict);
    }
    return missed;
}

}  // namespace

int main(int argc, char **argv) {
    // Defaults that a command-line flag overrides: interleaved repetitions, medians shown, JSON kept.
    std::vector<char *> args(argv, argv + argc);
    std::vector<std::string> defaults = {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=5",
                                         "--benchmark_display_aggregates_only=true", "--benchmark_min_time=0.1"};
    std::vector<std::string> kept;
    for (const std::string &flag : defaults) {
        const std::string name = flag.substr(0, flag.find('='));
        bool given = false;
        for (int i = 1; i < argc; ++i) given = given || strncmp(argv[i], name.c_str(), name.size()) == 0;
        if (!given) kept.push_back(flag);
    }
    for (std::string &flag : kept) args.insert(args.begin() + 1, flag.data());
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const int missed = print_table(
        "Hot paths against their references (medians of interleaved repetitions; CPU time, wall clock for launches)",
        kRows, sizeof kRows / sizeof kRows[0], reporter.medians, true);
    print_table("Before and after, same run", kBefore, sizeof kBefore / sizeof kBefore[0], reporter.medians, false);
    printf("\n%s\n", missed == 0 ? "every bar holds" : "some bar does not hold: see the verdicts above");
    return 0;
}
