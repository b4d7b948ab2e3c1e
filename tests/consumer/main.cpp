#include <crosscutting/crosscutting.h>
#include <pal/krpal_export.h>

#include <cstdio>

int main()
{
    Crosscutting::KrStatusReporter *reporter
        = Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->statusReporter();
    const StatusCode code = reporter->reportStatus(
        42, Crosscutting::createSourceContext(QString(), QStringLiteral("main.cpp"), 1, QStringLiteral("main"), {}));
    std::printf("consumer: reporter answered %lld\n", static_cast<long long>(code));
    return code == 42 ? 0 : 1;
}
