// krpal-tcxocal's own code (TcxoCalTool) under system-call failures that libfiu injects:
//   fiu-run -x tcxocal_faults [--seed N] [--repeat N] [--fault POINT=PROBABILITY:ERRNO,...]... -- ARGUMENTS
// The failure points are enabled only once QCoreApplication has started, so that the loader's,
// the C library's and Qt's start-up is never hit. Each failure takes one errno (a number) of
// its point's list at random. With --repeat, the command runs N times in one process, "%d"
// standing for 1000 + the run's number modulo 10. The failures injected are written to file
// descriptor 3, when open, as lines "POINT ERRNO COUNT".

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
    double probability = 0;
    std::vector<long> errnos;
};

std::map<std::string, Point> s_points;
std::map<std::pair<std::string, long>, int> s_injected;
bool s_armed = false;
unsigned long long s_random = 88172645463325252ull;

unsigned long long nextRandom()
{
    s_random ^= s_random << 13;
    s_random ^= s_random >> 7;
    s_random ^= s_random << 17;
    return s_random;
}

// Called by libfiu at each call of an enabled point; libfiu's wrapper sets errno from failinfo.
int decide(const char *name, int *, void **failinfo, unsigned int *)
{
    const Point &point = s_points.at(name);
    if (!s_armed || double(nextRandom() % 1000000) >= point.probability * 1e6)
        return 0;
    const long error = point.errnos[nextRandom() % point.errnos.size()];
    *failinfo = reinterpret_cast<void *>(error);
    ++s_injected[{name, error}];
    return 1;
}

// "posix/io/rw/write=0.05:5,28,4"
void addPoint(const std::string &text)
{
    const size_t equals = text.find('=');
    char *rest = nullptr;
    Point &point = s_points[text.substr(0, equals)];
    point.probability = std::strtod(text.c_str() + equals + 1, &rest);
    while (*rest == ':' || *rest == ',')
        point.errnos.push_back(std::strtol(rest + 1, &rest, 10));
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
    for (; first + 1 < argc && std::strcmp(argv[first], "--") != 0; first += 2) {
        if (std::strcmp(argv[first], "--fault") == 0)
            addPoint(argv[first + 1]);
        else if (std::strcmp(argv[first], "--seed") == 0)
            s_random += std::strtoull(argv[first + 1], nullptr, 10) * 0x9E3779B97F4A7C15ull;
        else if (std::strcmp(argv[first], "--repeat") == 0)
            repeat = std::atoi(argv[first + 1]);
    }
    argv[first] = argv[0];
    int toolArgc = argc - first;
    QCoreApplication application(toolArgc, argv + first);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-tcxocal"));
    TcxoCalTool tool;
    const QStringList arguments = QCoreApplication::arguments();

    fiu_init(0);
    for (const auto &point : s_points)
        fiu_enable_external(point.first.c_str(), 1, nullptr, 0, decide);
    int status = 0;
    for (int run = 0; run < repeat; ++run) {
        QStringList runArguments = arguments;
        runArguments.replaceInStrings(QStringLiteral("%d"), QString::number(1000 + run % 10));
        s_armed = true;
        status = tool.run(runArguments);
        s_armed = false;
    }
    // Whatever runs after main(), such as writing coverage data, must find no point enabled.
    for (const auto &point : s_points)
        fiu_disable(point.first.c_str());
    if (::fcntl(3, F_GETFD) != -1) {
        for (const auto &[point, count] : s_injected)
            dprintf(3, "%s %ld %d\n", point.first.c_str(), point.second, count);
    }
    return status;
}
