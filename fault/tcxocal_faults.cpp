// krpal-tcxocal's own code (TcxoCalTool) under system-call failures that libfiu injects:
//   fiu-run -x tcxocal_faults [--seed N] [--repeat N] [--fault POINT=PROBABILITY:ERRNO,...]... -- ARGUMENTS
// The failure points are enabled only once QCoreApplication has started, so that the loader's,
// the C library's and Qt's start-up is never hit. Each failure takes one errno (a number) of
// its point's list at random. With --repeat, the command runs N times in one process, "%d"
// standing for 1000 + the run's number modulo 10. The failures injected are written to file
// descriptor 3, when open, as lines "POINT ERRNO COUNT".

#include "faultpoints.h"
#include "tcxocaltool.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstring>

#include <dlfcn.h>
#include <sys/stat.h>

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
        if (!FaultPoints::option(argv[first], argv[first + 1]) && std::strcmp(argv[first], "--repeat") == 0)
            repeat = std::atoi(argv[first + 1]);
    }
    argv[first] = argv[0];
    int toolArgc = argc - first;
    QCoreApplication application(toolArgc, argv + first);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-tcxocal"));
    TcxoCalTool tool;
    const QStringList arguments = QCoreApplication::arguments();

    FaultPoints::enable();
    int status = 0;
    for (int run = 0; run < repeat; ++run) {
        QStringList runArguments = arguments;
        runArguments.replaceInStrings(QStringLiteral("%d"), QString::number(1000 + run % 10));
        FaultPoints::armed = true;
        status = tool.run(runArguments);
        FaultPoints::armed = false;
    }
    FaultPoints::disableAndReport();
    return status;
}
