// krpal-tcxocal's own code (TcxoCalTool) under system-call failures that libfiu injects:
//   fiu-run -x tcxocal_faults [--seed N] [--repeat N] [--fault POINT=PROBABILITY:ERRNO,...]... -- ARGUMENTS
// The failure points are enabled from here only once QCoreApplication has started, so that the
// dynamic loader, the C library's and Qt's start-up (locale, logging rules) are never hit: every
// failure lands in the tool's command. Each failure takes one errno of its point's list, at random.
// With --repeat, the command runs N times in one process, "%d" in an argument standing for
// 1000 + the run's number modulo 10 (the crash loop kills such a process at random moments).
// The failures injected are counted and written to file descriptor 3, when open, as lines
// "POINT ERRNO COUNT".

#include "tcxocaltool.h"

#include <QCoreApplication>

#include <fiu-control.h>
#include <fiu.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

struct Point
{
    float probability;
    std::vector<int> errnos;
};

std::map<std::string, Point> s_points;
std::map<std::pair<std::string, int>, int> s_injected;
bool s_armed = false;
unsigned long long s_random = 88172645463325252ull;

unsigned long long nextRandom()
{
    s_random ^= s_random << 13;
    s_random ^= s_random >> 7;
    s_random ^= s_random << 17;
    return s_random;
}

// Called by libfiu at each call of an enabled point: fails it with its probability, with one
// errno of its list, which libfiu's wrapper takes from the failure information.
int decide(const char *name, int *, void **failinfo, unsigned int *)
{
    const Point &point = s_points.at(name);
    if (!s_armed || double(nextRandom() % 1000000) >= point.probability * 1e6)
        return 0;
    const int error = point.errnos[nextRandom() % point.errnos.size()];
    *failinfo = reinterpret_cast<void *>(long(error));
    ++s_injected[{name, error}];
    return 1;
}

int errnoNamed(const std::string &name)
{
    static const std::map<std::string, int> errnos
        = {{"EIO", EIO}, {"ENOSPC", ENOSPC}, {"EINTR", EINTR}, {"EACCES", EACCES}};
    const auto found = errnos.find(name);
    if (found == errnos.end()) {
        std::fprintf(stderr, "tcxocal_faults: unknown errno %s\n", name.c_str());
        std::exit(2);
    }
    return found->second;
}

// "posix/io/rw/write=0.05:EIO,ENOSPC,EINTR"
void addPoint(const std::string &text)
{
    const size_t equals = text.find('=');
    const size_t colon = text.find(':', equals);
    Point point{std::strtof(text.substr(equals + 1, colon - equals - 1).c_str(), nullptr), {}};
    for (size_t start = colon + 1; start <= text.size();) {
        const size_t comma = std::min(text.find(',', start), text.size());
        point.errnos.push_back(errnoNamed(text.substr(start, comma - start)));
        start = comma + 1;
    }
    if (equals == std::string::npos || colon == std::string::npos || point.errnos.empty()) {
        std::fprintf(stderr, "tcxocal_faults: bad --fault %s\n", text.c_str());
        std::exit(2);
    }
    s_points[text.substr(0, equals)] = point;
}

} // namespace

// libfiu's POSIX preload has no mkdir(): this program's own, found before the C library's.
extern "C" __attribute__((visibility("default"))) int mkdir(const char *path, mode_t mode)
{
    static const auto next = reinterpret_cast<int (*)(const char *, mode_t)>(dlsym(RTLD_NEXT, "mkdir"));
    if (fiu_fail("posix/io/dir/mkdir")) {
        errno = int(reinterpret_cast<long>(fiu_failinfo()));
        return -1;
    }
    return next(path, mode);
}

int main(int argc, char *argv[])
{
    int repeat = 1;
    int first = 1;
    for (; first < argc && std::strcmp(argv[first], "--") != 0; first += 2) {
        const std::string option = argv[first];
        const char *value = first + 1 < argc ? argv[first + 1] : "";
        if (option == "--fault")
            addPoint(value);
        else if (option == "--seed")
            s_random += std::strtoull(value, nullptr, 10) * 0x9E3779B97F4A7C15ull;
        else if (option == "--repeat")
            repeat = std::atoi(value);
    }
    if (first >= argc) {
        std::fprintf(stderr,
            "usage: fiu-run -x tcxocal_faults [--seed N] [--repeat N] [--fault POINT=P:ERRNO,...]... "
            "-- ARGUMENTS\n");
        return 2;
    }
    argv[first] = argv[0];
    int toolArgc = argc - first;
    QCoreApplication application(toolArgc, argv + first);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-tcxocal"));
    TcxoCalTool tool;
    const QStringList arguments = QCoreApplication::arguments();

    fiu_init(0);
    for (const auto &[name, point] : s_points)
        fiu_enable_external(name.c_str(), 1, nullptr, 0, decide);
    int status = 0;
    for (int run = 0; run < repeat; ++run) {
        QStringList runArguments = arguments;
        runArguments.replaceInStrings(QStringLiteral("%d"), QString::number(1000 + run % 10));
        s_armed = true;
        status = tool.run(runArguments);
        s_armed = false;
    }

    if (::fcntl(3, F_GETFD) != -1) {
        for (const auto &[key, count] : s_injected)
            dprintf(3, "%s %s %d\n", key.first.c_str(), strerrorname_np(key.second), count);
    }
    return status;
}
