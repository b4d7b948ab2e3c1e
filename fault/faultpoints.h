#pragma once

// The failure points of a driver run under fiu-run -x, given as options
// "--fault POINT=PROBABILITY:ERRNO,..." and enabled through fiu_enable_external() once the
// driver's start-up is over. A point fails only on a thread that is armed, with its
// probability, and takes one errno of its list at random (libfiu's wrapper sets errno from the
// failure information). The failures are counted by point and errno, and written to file
// descriptor 3, when open, as lines "POINT ERRNO COUNT".

#include <fiu-control.h>
#include <fiu.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace FaultPoints {

struct Point
{
    double probability = 0;
    std::vector<long> errnos;
};
inline std::map<std::string, Point> points;
inline std::map<std::pair<std::string, long>, int> injected;
inline thread_local bool armed = false;
inline unsigned long long state = 88172645463325252ull;

inline unsigned long long random()
{
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

// "posix/io/rw/write=0.05:5,28,4"
inline void add(const std::string &text)
{
    const size_t equals = text.find('=');
    char *rest = nullptr;
    Point &point = points[text.substr(0, equals)];
    point.probability = std::strtod(text.c_str() + equals + 1, &rest);
    while (*rest == ':' || *rest == ',')
        point.errnos.push_back(std::strtol(rest + 1, &rest, 10));
}

// Takes the options --fault and --seed with their value: false for any other.
inline bool option(const char *name, const char *value)
{
    if (std::string(name) == "--seed")
        state += std::strtoull(value, nullptr, 10) * 0x9E3779B97F4A7C15ull;
    else if (std::string(name) == "--fault")
        add(value);
    return std::string(name) == "--seed" || std::string(name) == "--fault";
}

// Called by libfiu at each call of an enabled point.
inline int decide(const char *name, int *, void **failinfo, unsigned int *)
{
    const Point &point = points.at(name);
    if (!armed || double(random() % 1000000) >= point.probability * 1e6)
        return 0;
    const long error = point.errnos[random() % point.errnos.size()];
    *failinfo = reinterpret_cast<void *>(error);
    ++injected[{name, error}];
    return 1;
}

inline void enable()
{
    fiu_init(0);
    for (const auto &point : points)
        fiu_enable_external(point.first.c_str(), 1, nullptr, 0, decide);
}

// Whatever runs after main(), such as writing coverage data, must find no point enabled.
inline void disableAndReport()
{
    for (const auto &point : points)
        fiu_disable(point.first.c_str());
    if (::fcntl(3, F_GETFD) != -1) {
        for (const auto &[point, count] : injected)
            dprintf(3, "%s %ld %d\n", point.first.c_str(), point.second, count);
    }
}

} // namespace FaultPoints
