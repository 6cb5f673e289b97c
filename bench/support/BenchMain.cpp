// Shared main() of the benchmark programs: Google Benchmark's, plus the
// library version in the context so that saved results say what they measured.
#include <benchmark/benchmark.h>

#include "KroLibVersion.h"

int main(int argc, char** argv)
{
    benchmark::AddCustomContext("krolib_version", KROLIB_VERSION_STRING);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
