#include "SuperResolutionCAdapter.h"

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "CameraLensTable.h"
#include "DebugDeviceBase.h"
#include "Exception.h"
#include "ImageIO.h"
#include "LogFacility.h"
#include "SrFloat.h"
#include "SrResultCodes.h"
#include "detail/CInterfaceAccess.h"

using velmor::kro::Exception;
using velmor::kro::ImageIO;
using velmor::kro::LogFacility;
using velmor::kro::SrFloat;
using velmor::kro::SrFloatRegistration2;

namespace {

const char* const kSourcePath = "modules/enhancement/superresolution/SuperResolutionCAdapter";
const char* const kDebugStreamPath = "C:/temp/SrFloat.pfm";
const char* const kDebugResultPath = "C:/temp/SrFloat-Result.pfm";
constexpr int kWindowSize = 5;
constexpr float kMagnification = 2.0f;

struct ContextSlot {
    int width = 0;
    int height = 0;
    cv::Mat result;
    std::unique_ptr<SrFloat<SrFloatRegistration2>> engine;
    ImageIO debugStream;
    std::shared_ptr<velmor::kro::DebugDeviceBase> debugDevice;
    int imageCount = 0;
};

// Process-wide state of the C interface. Callers serialise all calls.
std::vector<ContextSlot>& contextTable()
{
    static std::vector<ContextSlot> table;
    return table;
}

std::string& lastError()
{
    static std::string text;
    return text;
}

bool loggingOn()
{
    return LogFacility::getInstance().getLogLevel() >= velmor::kro::LOG_DEBUG;
}

void logLine(int line, const std::string& text)
{
    LogFacility& log = LogFacility::getInstance();
    if (log.getSourcePosition()) {
        std::ostringstream prefixed;
        prefixed << kSourcePath << ", " << line << " : " << text;
        log.logMessage(velmor::kro::LOG_DEBUG, prefixed.str());
    } else {
        log.logMessage(velmor::kro::LOG_DEBUG, text);
    }
}

template <typename... Parts>
std::string concat(const Parts&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

// The line is only composed when logging is on: most calls run with it off.
#define KRO_LOG(...)                                   \
    do {                                               \
        if (loggingOn())                               \
            logLine(__LINE__, concat(__VA_ARGS__));    \
    } while (false)

ContextSlot* validContext(int handle)
{
    std::vector<ContextSlot>& table = contextTable();
    if (handle < 0 || static_cast<std::size_t>(handle) >= table.size() || !table[handle].engine) {
        lastError() = "Context invalid.";
        return nullptr;
    }
    return &table[handle];
}

// Runs `body`; an exception becomes the stored error text and kSrLibraryError (-999).
template <typename Body>
int guarded(Body body)
{
    try {
        return body();
    } catch (const Exception& e) {
        lastError() = e.what();
    } catch (const cv::Exception& e) {
        lastError() = "cv::Exception: " + e.err;
    } catch (...) {
        lastError() = "Unknown exception in addImage()";
    }
    return velmor::kro::kSrLibraryError;
}

} // namespace

namespace velmor {
namespace kro {
namespace detail {

const SrFloat<SrFloatRegistration2>* cInterfaceEngine(int handle)
{
    std::vector<ContextSlot>& table = contextTable();
    if (handle < 0 || static_cast<std::size_t>(handle) >= table.size())
        return nullptr;
    return table[handle].engine.get();
}

} // namespace detail
} // namespace kro
} // namespace velmor

extern "C" {

int SuperResolution_init(int width, int height)
{
    LogFacility::getInstance().configureFromEnvironment();
    KRO_LOG("SuperResolution_init( ", width, " , ", height, " )");

    std::vector<ContextSlot>& table = contextTable();
    std::size_t handle = 0;
    while (handle < table.size() && table[handle].engine)
        ++handle;
    if (handle == table.size())
        table.emplace_back();
    ContextSlot& slot = table[handle];

    // Engines get no console device here: their traces are switched on for
    // all of them at once through DebugSingleton, which keeps a context's
    // console quiet unless the program asks for traces.
    // The options' defaults are the C interface's settings (window 5,
    // reference index 3, TV weight 400, registration error 0.0001, relative
    // residue 0.007).
    velmor::kro::SrFloatOptions options;
    options.windowSize = kWindowSize;
    slot.engine = std::make_unique<SrFloat<SrFloatRegistration2>>(width, height, options, kMagnification);
    slot.width = width;
    slot.height = height;
    slot.imageCount = 0;
    slot.result.create(static_cast<int>(height * kMagnification), static_cast<int>(width * kMagnification), CV_32F);


    if (LogFacility::getInstance().getLogLevel() == velmor::kro::LOG_DEBUG) {
        slot.debugStream.open(kDebugStreamPath);
        KRO_LOG("  opening debug image stream to: ", kDebugStreamPath);
    }
    KRO_LOG("  got context number:", handle);
    return static_cast<int>(handle);
}

int SuperResolution_release(int handle)
{
    KRO_LOG("SuperResolution_release( ", static_cast<unsigned int>(handle), " )");
    ContextSlot* slot = validContext(handle);
    if (!slot)
        return velmor::kro::kSrLibraryError;
    slot->engine.reset();
    slot->result.release();
    slot->height = 0;
    slot->width = 0;
    if (slot->debugStream.isOpen()) {
        slot->debugStream.close();
        KRO_LOG("  closing debug image stream");
    }
    return 0;
}

int SuperResolution_getErrorMessage(char* buffer, unsigned int size)
{
    // Nothing to copy into: done (strncpy itself must not see a null buffer).
    if (buffer == nullptr || size == 0)
        return 0;
    std::strncpy(buffer, lastError().c_str(), size);
    return 0;
}

int SuperResolution_queryOutputImageSize(int handle, int* outWidth, int* outHeight)
{
    KRO_LOG("SuperResolution_queryOutputImageSize(", handle, " , ", static_cast<const void*>(outWidth),
            " , ", static_cast<const void*>(outHeight));
    ContextSlot* slot = validContext(handle);
    if (!slot)
        return velmor::kro::kSrLibraryError;
    int code = 0;
    if (slot->imageCount < kWindowSize) {
        lastError() = "Not enough input images (<5)";
        code = velmor::kro::kSrWindowNotFull;
        // A reconstruction from the frames there are: this is how a caller
        // gets a result before the window is full. With no frame at all
        // there is nothing to reconstruct.
        if (slot->imageCount > 0)
            code = guarded([&] {
                slot->engine->computeSR(slot->result.ptr<float>(0));
                return velmor::kro::kSrWindowNotFull;
            });
    }
    if (outWidth)
        *outWidth = slot->result.cols;
    if (outHeight)
        *outHeight = slot->result.rows;
    return code;
}

int SuperResolution_addImage(int handle, const float* image)
{
    KRO_LOG("SuperResolution_addImage(", handle, ", ...)");
    ContextSlot* slot = validContext(handle);
    if (!slot)
        return velmor::kro::kSrLibraryError;
    if (slot->width == 0 || slot->height == 0) {
        lastError() = "Size of expected Ir images unknown";
        return velmor::kro::kSrLibraryError;
    }
    if (image == nullptr) {
        lastError() = "ir image data pointer is NULL";
        return velmor::kro::kSrLibraryError;
    }
    return guarded([&] {
        const cv::Mat_<float> frame(slot->height, slot->width, const_cast<float*>(image));
        if (slot->debugStream.isOpen())
            slot->debugStream << frame;

        const bool structureOk = slot->engine->checkImageStructureQuality(frame);
        if (!structureOk)
            lastError() = "  image has not enough structure";
        KRO_LOG("  calling addFrame(...)");
        const int r = slot->engine->addFrame(image);
        ++slot->imageCount;
        float q = 0.0f;
        if (slot->imageCount >= kWindowSize) {
            KRO_LOG("  calling processFrame(...)");
            q = slot->engine->computeSR(slot->result.ptr<float>(0));
            KRO_LOG("  finished processFrame(...)");
        }
        return velmor::kro::cInterfaceCode(structureOk, r, q);
    });
}

int SuperResolution_getSuperresolutionImage(int handle, float* mosaic)
{
    KRO_LOG("SuperResolution_getSuperresolutionImage(", static_cast<unsigned int>(handle), " , float* ",
            static_cast<const void*>(mosaic), ")");
    ContextSlot* slot = validContext(handle);
    if (!slot)
        return velmor::kro::kSrLibraryError;
    int code = 0;
    if (mosaic == nullptr) {
        lastError() = "Ir mosaic data pointer is NULL.";
        code = velmor::kro::kSrLibraryError;
    }
    if (slot->imageCount < kWindowSize) {
        lastError() = "Not enough input images (<5)";
        code = velmor::kro::kSrWindowNotFull;
    }
    if (LogFacility::getInstance().getLogLevel() == velmor::kro::LOG_DEBUG)
        ImageIO::save(kDebugResultPath, slot->result, ImageIO::kSaveAtomic);
    // The checks above only report; the copy is made whenever there is
    // somewhere to copy to (a NULL buffer is reported, not written through).
    if (mosaic != nullptr)
        std::memcpy(mosaic, slot->result.ptr<float>(0), slot->result.total() * sizeof(float));
    return code;
}

int SuperResolution_setCameraAndLensType(int handle, const char* description)
{
    float sigma = velmor::kro::kDefaultPsfSigma;
    const std::string text = description ? description : "";
    KRO_LOG("SuperResolution_setCameraAndLensType(", text, ")");
    std::string modelCode;
    int fieldOfView = -1;
    if (velmor::kro::decodeCameraType(text, modelCode, fieldOfView)) {
        KRO_LOG("  decoded camera: ", modelCode, " FOV: ", fieldOfView);
        sigma = velmor::kro::psfSigmaFor(modelCode, fieldOfView);
    }
    KRO_LOG("  using sigma: ", sigma);
    // The handle is not checked against released slots (callers pass a live
    // one); an index outside the table is ignored rather than written through.
    std::vector<ContextSlot>& table = contextTable();
    if (handle >= 0 && static_cast<std::size_t>(handle) < table.size() && table[handle].engine)
        table[handle].engine->setPsfSigma(sigma);
    return 0;
}

int SuperResolution_setReferenceFrame(int handle, int index)
{
    KRO_LOG("SuperResolution_setReferencFrame(", static_cast<unsigned int>(handle), " , ", index, ")");
    ContextSlot* slot = validContext(handle);
    if (!slot)
        return velmor::kro::kSrLibraryError;
    // An index outside the window throws the engine's const char* message;
    // it is deliberately not caught here.
    slot->engine->setReferenceIndex(index);
    return 0;
}

} // extern "C"
