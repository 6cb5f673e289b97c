#include <gtest/gtest.h>

#include <string>

#include "Exception.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {
namespace {

struct Thrower {
    template <typename T>
    static void member(T value)
    {
        KRO_THROW("invalid value " << value);
    }
};

int throwFromFreeFunction() { KRO_THROW("invalid image masks size"); }

} // namespace

TEST(ThrowHelper, ThrowsAStdExceptionWithTheMessageAndTheSourceLocation)
{
    const int callLine = __LINE__ + 2;
    try {
        throwFromFreeFunction();
        FAIL() << "nothing thrown";
    } catch (const std::exception& caught) {
        const Exception& e = dynamic_cast<const Exception&>(caught);
        EXPECT_STREQ("invalid image masks size", e.what());
        // "<path without extension>:<line of the throw> : <qualified function>(..)"
        const std::string expectedPrefix = "tests/support/ExceptionTest:";
        EXPECT_EQ(0u, e.where().find(expectedPrefix)) << e.where();
        EXPECT_NE(std::string::npos,
                  e.where().find(" : velmor::kro::{anonymous}::throwFromFreeFunction(..)"))
            << e.where();
        const int thrownAt = std::stoi(e.where().substr(expectedPrefix.size()));
        EXPECT_GT(thrownAt, 0);
        EXPECT_LT(thrownAt, callLine);
    }
    try {
        Thrower::member(42);
        FAIL() << "nothing thrown";
    } catch (const Exception& e) {
        EXPECT_STREQ("invalid value 42", e.what());
        const Exception copy(e);
        EXPECT_EQ(e.where(), copy.where());
        EXPECT_NE(std::string::npos, copy.where().find(" : velmor::kro::{anonymous}::Thrower::member(..)"))
            << copy.where();
    }
}

TEST(ThrowHelper, ModulePathIsCutAtTheSourceTreeAndLosesItsExtension)
{
    using detail::moduleSourcePath;
    EXPECT_EQ("modules/enhancement/ClusterPatternRemover",
              moduleSourcePath("modules/enhancement/ClusterPatternRemover.cpp"));
    EXPECT_EQ("modules/enhancement/superresolution/SrIntRegistration",
              moduleSourcePath("/home/me/src/krolib/modules/enhancement/superresolution/SrIntRegistration.cpp"));
    // A folder called "modules" above the source tree does not confuse it.
    EXPECT_EQ("modules/support/LogFacility",
              moduleSourcePath("/srv/modules/build/modules/support/LogFacility.cpp"));
    EXPECT_EQ("modules/a.b/File", moduleSourcePath("modules/a.b/File.h"));
}

TEST(ThrowHelper, QualifiedNameFromCompilerSignatures)
{
    using detail::qualifiedFunctionName;
    EXPECT_EQ("velmor::kro::SrFloat::computeSR",
              qualifiedFunctionName("float velmor::kro::SrFloat<T>::computeSR(float*) [with T = velmor::kro::SrFloatRegistration2]"));
    EXPECT_EQ("Histogram::processFrame", qualifiedFunctionName("void Histogram::processFrame(int*, int)"));
    EXPECT_EQ("velmor::kro::Foo::Foo", qualifiedFunctionName("velmor::kro::Foo::Foo(int, int)"));
    EXPECT_EQ("velmor::kro::Foo::get",
              qualifiedFunctionName("std::vector<std::pair<int, int> > velmor::kro::Foo::get() const"));
    EXPECT_EQ("modules/enhancement/ClusterPatternRemover:75 : velmor::kro::ClusterPatternRemover::calculateDamping(..)",
              detail::makeLocation("modules/enhancement/ClusterPatternRemover.cpp", 75,
                                   "void velmor::kro::ClusterPatternRemover::calculateDamping(const cv::Mat&, int)"));
}

} // namespace kro
} // namespace velmor
