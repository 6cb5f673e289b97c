#include "CameraLensTable.h"

#include <sstream>

namespace velmor {
namespace kro {

namespace {

struct CameraModel {
    const char* searchKey;
    const char* modelCode;
};

// Searched in this order: a description naming two models yields the earlier row.
const CameraModel kCameraModels[] = {
    {"k41", "mk41"}, {"k43", "mk43"}, {"k44", "mk44"}, {"k52", "mk52"},
    {"k53", "mk53"}, {"k54", "mk54"}, {"k57", "mk57"}, {"k61", "mk61"},
};

} // namespace

bool decodeCameraType(const std::string& description, std::string& modelCode, int& fieldOfView)
{
    bool found = false;
    for (const CameraModel& model : kCameraModels) {
        if (description.find(model.searchKey) != std::string::npos) {
            modelCode = model.modelCode;
            found = true;
            break;
        }
    }
    if (!found)
        return false;

    const std::size_t fov = description.find("FOV");
    if (fov == std::string::npos)
        return false;
    fieldOfView = -1;
    std::istringstream number(description.substr(fov + 3));
    int value = -1;
    if (!(number >> value))
        return false;  // no number after "FOV"
    fieldOfView = value;
    return fieldOfView != -1;
}

float psfSigmaFor(const std::string& modelCode, int fieldOfView)
{
    // The four tiny sigmas model almost no blur on purpose: those cameras'
    // optics and sensor are sharp at the low-resolution pixel scale.
    if (modelCode == "mk43") return 0.01f;
    if (modelCode == "mk44") return 0.01f;
    if (modelCode == "mk52") return 0.01f;
    if (modelCode == "mk53") return 0.01f;
    if (modelCode == "mk54") return 0.625f;
    if (modelCode == "mk57") return fieldOfView >= 23 ? 0.35f : 0.65f;
    if (modelCode == "mk61") return 0.34f;
    if (modelCode == "mk41") return 0.81f;
    return kDefaultPsfSigma;
}

} // namespace kro
} // namespace velmor
