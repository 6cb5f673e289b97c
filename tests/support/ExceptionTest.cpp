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
    int constMember() const { KRO_THROW("unexpected Exp"); }
};

int throwFromFreeFunction() { KRO_THROW("invalid image masks size"); }

} // namespace

TEST(Exception, WhatIsTheMessageAloneAndWhereIsTheLocation)
{
    const Exception e("invalid image masks size", "modules/x/Y:12 : velmor::kro::Y::f(..)");
    EXPECT_STREQ("invalid image masks size", e.what());
    EXPECT_EQ("modules/x/Y:12 : velmor::kro::Y::f(..)", e.where());
    const Exception copy(e);
    EXPECT_STREQ(e.what(), copy.what());
    EXPECT_EQ(e.where(), copy.where());
}

TEST(Exception, IsCaughtAsStdException)
{
    try {
        throw Exception("reason", "somewhere");
    } catch (const std::exception& e) {
        EXPECT_STREQ("reason", e.what());
        return;
    }
    FAIL() << "not caught";
}

TEST(Exception, BareStringFromSettersIsNotAStdException)
{
    // Engine setters throw the message as a plain C string; a handler for
    // std::exception alone must not see it.
    bool caughtAsString = false;
    try {
        try {
            throw "Invalid reference index specified.";
        } catch (const std::exception&) {
            FAIL() << "a C string must not be caught as std::exception";
        }
    } catch (const char* message) {
        caughtAsString = std::string(message) == "Invalid reference index specified.";
    }
    EXPECT_TRUE(caughtAsString);
}

TEST(ThrowHelper, LocationNamesSourcePathLineAndQualifiedFunction)
{
    int line = 0;
    try {
        line = __LINE__ + 1;
        throwFromFreeFunction();
    } catch (const Exception& e) {
        EXPECT_STREQ("invalid image masks size", e.what());
        // The throw is a few lines above; the location gives its own line.
        const std::string expectedPrefix = "tests/support/ExceptionTest:";
        EXPECT_EQ(0u, e.where().find(expectedPrefix)) << e.where();
        EXPECT_NE(std::string::npos,
                  e.where().find(" : velmor::kro::{anonymous}::throwFromFreeFunction(..)"))
            << e.where();
        const int thrownAt = std::stoi(e.where().substr(expectedPrefix.size()));
        EXPECT_GT(thrownAt, 0);
        EXPECT_LT(thrownAt, line);
        return;
    }
    FAIL() << "nothing thrown";
}

TEST(ThrowHelper, MessageStreamsValuesAndTemplateArgumentsAreDropped)
{
    try {
        Thrower::member(42);
    } catch (const Exception& e) {
        EXPECT_STREQ("invalid value 42", e.what());
        EXPECT_NE(std::string::npos,
                  e.where().find(" : velmor::kro::{anonymous}::Thrower::member(..)"))
            << e.where();
    }
    try {
        Thrower().constMember();
    } catch (const Exception& e) {
        EXPECT_NE(std::string::npos, e.where().find("Thrower::constMember(..)")) << e.where();
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
    EXPECT_EQ("velmor::kro::ClusterPatternRemover::calculateDamping",
              qualifiedFunctionName("void velmor::kro::ClusterPatternRemover::calculateDamping(const cv::Mat&, int)"));
    EXPECT_EQ("velmor::kro::SrFloat::computeSR",
              qualifiedFunctionName("float velmor::kro::SrFloat<T>::computeSR(float*) [with T = velmor::kro::SrFloatRegistration2]"));
    EXPECT_EQ("Histogram::processFrame", qualifiedFunctionName("void Histogram::processFrame(int*, int)"));
    EXPECT_EQ("velmor::kro::Foo::Foo", qualifiedFunctionName("velmor::kro::Foo::Foo(int, int)"));
    EXPECT_EQ("velmor::kro::Foo::get",
              qualifiedFunctionName("std::vector<std::pair<int, int> > velmor::kro::Foo::get() const"));
}

TEST(ThrowHelper, LocationHasTheDocumentedShape)
{
    EXPECT_EQ("modules/enhancement/ClusterPatternRemover:75 : velmor::kro::ClusterPatternRemover::calculateDamping(..)",
              detail::makeLocation("modules/enhancement/ClusterPatternRemover.cpp", 75,
                                   "void velmor::kro::ClusterPatternRemover::calculateDamping()"));
}

} // namespace kro
} // namespace velmor
