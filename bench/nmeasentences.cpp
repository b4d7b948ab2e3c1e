// NMEA input through KrNmeaGpsSource::addData, against the least any reader does with the same
// bytes: a plain loop that splits them into lines and verifies each line's checksum. The input
// is a receiver's second after second of RMC, VTG, GGA, GSA, GSV and GLL, in 4 KiB reads.

#include "benchsupport.h"

#include <pal/devices/krnmeagpssource.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>

namespace Bench {

namespace {

constexpr int epochs = 1000;
constexpr int sentencesPerEpoch = 6;
constexpr int readSize = 4096;

QByteArray sentence(const char *body)
{
    int checksum = 0;
    for (const char *p = body; *p; ++p)
        checksum ^= uchar(*p);
    char text[160];
    std::snprintf(text, sizeof text, "$%s*%02X\r\n", body, checksum);
    return text;
}

QByteArray recording()
{
    QByteArray bytes;
    char body[128];
    for (int epoch = 0; epoch < epochs; ++epoch) {
        const int s = epoch % 60;
        const int m = epoch / 60 % 60;
        const int minutes = 70000 + epoch; // 07.0000 minutes on
        std::snprintf(body, sizeof body, "GPRMC,10%02d%02d.00,A,4807.%04d,N,01131.%04d,E,0.021,84.40,180324,,,A", m, s,
            minutes % 10000, minutes % 10000);
        bytes += sentence(body);
        bytes += sentence("GPVTG,84.40,T,,M,0.021,N,0.039,K,A");
        std::snprintf(body, sizeof body, "GPGGA,10%02d%02d.00,4807.%04d,N,01131.%04d,E,1,08,1.01,545.4,M,47.0,M,,", m,
            s, minutes % 10000, minutes % 10000);
        bytes += sentence(body);
        bytes += sentence("GPGSA,A,3,02,05,12,15,18,24,25,29,,,,,1.80,1.01,1.49");
        bytes += sentence("GPGSV,2,1,08,02,40,083,46,05,17,308,41,12,07,344,39,15,64,147,48");
        std::snprintf(body, sizeof body, "GPGLL,4807.%04d,N,01131.%04d,E,10%02d%02d.00,A,A", minutes % 10000,
            minutes % 10000, m, s);
        bytes += sentence(body);
    }
    return bytes;
}

// The reference: lines split, each checksum verified; the count of good lines.
int verifyLines(const QByteArray &bytes)
{
    int good = 0;
    const char *p = bytes.constData();
    const char *const end = p + bytes.size();
    while (p < end) {
        const char *lineEnd = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        if (!lineEnd)
            lineEnd = end;
        const char *star = lineEnd;
        int checksum = 0;
        const char *q = p + 1;
        for (; q < lineEnd && *q != '*'; ++q)
            checksum ^= uchar(*q);
        star = q;
        if (*p == '$' && star + 2 < lineEnd) {
            char hex[3] = {star[1], star[2], 0};
            good += int(std::strtol(hex, nullptr, 16)) == checksum;
        }
        p = lineEnd + 1;
    }
    return good;
}

void sentences(benchmark::State &state)
{
    const QByteArray bytes = recording();
    const int total = epochs * sentencesPerEpoch;
    if (verifyLines(bytes) != total) {
        state.SkipWithError("the recording has bad checksums");
        return;
    }
    int emitted = 0;
    alternate(state,
        {{"addData",
             [&] {
                 Pal::KrNmeaGpsSource source;
                 emitted = 0;
                 QObject::connect(&source, &Pal::KrNmeaGpsSource::gpsInfoUpdated, [&emitted] { ++emitted; });
                 for (int at = 0; at < bytes.size(); at += readSize)
                     source.addData(bytes.constData() + at, qMin(readSize, bytes.size() - at));
                 source.flush();
                 return emitted == epochs && source.droppedSentences() == 0;
             }},
            {"checksum_loop", [&] { return verifyLines(opaque(&bytes)[0]) == total; }}});
    state.counters["sentences"] = total;
    state.counters["bytes"] = bytes.size();
}

} // namespace

void registerNmeaSentences()
{
    benchmark::RegisterBenchmark("nmea/sentences", &sentences)->UseRealTime();
}

} // namespace Bench
