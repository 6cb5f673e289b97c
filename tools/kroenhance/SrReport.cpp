#include "SrReport.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "KroLibVersion.h"

namespace kroenhance {

namespace {

// A number as JSON knows it: non-finite values become null.
std::string number(double value, int digits = 9)
{
    if (!std::isfinite(value))
        return "null";
    std::ostringstream text;
    text.precision(digits);
    text << value;
    return text.str();
}

} // namespace

namespace {

void writeGlobalSettings(std::ostream& out, const SrSettings& s)
{
    out << ", \"engine\": " << jsonString(srEngineName(s.engine))
        << ", \"tv_weight\": " << number(static_cast<float>(s.tvWeight), 7)
        << ", \"reg_error\": " << number(static_cast<float>(s.regError), 7)
        << ", \"rel_residue\": " << number(static_cast<float>(s.relResidue), 7)
        << ", \"iterations\": " << s.iterations
        << ", \"psf_sigma\": " << number(static_cast<float>(s.psfSigma), 7)
        << ", \"camera\": " << (s.camera.empty() ? std::string("null") : jsonString(s.camera))
        << ", \"camera_model\": " << (s.cameraModel.empty() ? std::string("null") : jsonString(s.cameraModel));
}

void writeWarnings(std::ostream& out, const SrFrameRecord& r)
{
    out << "\"warnings\": [";
    for (std::size_t i = 0; i < r.warnings.size(); ++i)
        out << (i ? ", " : "") << jsonString(r.warnings[i]);
    out << "]";
}

void writeLocalFields(std::ostream& out, const SrFrameRecord& r)
{
    out << ",\n     \"rejected_fraction\": " << number(r.rejectedFraction, 6)
        << ", \"reference_only_fraction\": " << number(r.referenceOnlyFraction, 6) << ", ";
    writeWarnings(out, r);
}

// The phase coverage as three rows of three, or null when not known.
void writeReferenceFields(std::ostream& out, const SrFrameRecord& r)
{
    out << ",\n     \"quality_map\": ";
    if (r.qualityMap.size() == 9) {
        out << "[";
        for (int row = 0; row < 3; ++row) {
            out << (row ? ", [" : "[");
            for (int col = 0; col < 3; ++col)
                out << (col ? ", " : "") << number(r.qualityMap[3 * row + col], 6);
            out << "]";
        }
        out << "]";
    } else {
        out << "null";
    }
    out << ", ";
    writeWarnings(out, r);
}

void writeCalibration(std::ostream& out, const SrCalibrationFiles& c)
{
    out << ", \"calibration\": {\"raw_low\": " << jsonString(c.rawLow)
        << ", \"radiance_low\": " << jsonString(c.radianceLow) << ", \"raw_high\": " << jsonString(c.rawHigh)
        << ", \"radiance_high\": " << jsonString(c.radianceHigh) << "}";
}

void writeFixedFields(std::ostream& out, const SrFrameRecord& r)
{
    out << ",\n     \"iterations\": ";
    if (r.iterations >= 0)
        out << r.iterations;
    else
        out << "null";
    out << ", ";
    writeWarnings(out, r);
}

} // namespace

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (u < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof(escaped), "\\u%04x", u);
                out += escaped;
            } else {
                out += c;  // UTF-8 passes through
            }
        }
    }
    return out + "\"";
}

void writeSrReport(std::ostream& out, const SrRunSummary& run, const std::vector<SrFrameRecord>& records)
{
    const SrSettings& s = run.settings;
    long long fallbacks = 0;
    for (const SrFrameRecord& r : records)
        fallbacks += r.fallback() ? 1 : 0;

    out << "{\n"
        << "  \"command\": \"kroenhance sr\",\n"
        << "  \"version\": " << jsonString(KROLIB_VERSION_STRING) << ",\n"
        << "  \"settings\": {\"motion\": " << jsonString(srMotionName(s.motion))
        << ", \"window\": " << s.window << ", \"reference_index\": " << s.referenceIndex;
    if (s.motion == SrMotion::Global) {
        writeGlobalSettings(out, s);
        if (s.engine == SrEngine::Reference)
            writeCalibration(out, s.calibration);
    } else
        out << ", \"psf_sigma\": " << number(s.psfSigmaGiven ? static_cast<float>(s.psfSigma) : 0.0f, 7);
    out << "},\n"
        << "  \"input\": {\"width\": " << run.inputSize.width << ", \"height\": " << run.inputSize.height
        << ", \"frames\": " << run.inputFrames << "},\n"
        << "  \"output\": {\"path\": " << jsonString(run.outputPath) << ", \"width\": " << run.outputSize.width
        << ", \"height\": " << run.outputSize.height << ", \"frames\": " << records.size() << "},\n"
        << "  \"reconstructed\": " << static_cast<long long>(records.size()) - fallbacks << ",\n"
        << "  \"fallbacks\": " << fallbacks << ",\n"
        << "  \"seconds\": " << number(run.seconds, 6) << ",\n"
        << "  \"frames\": [";
    for (std::size_t k = 0; k < records.size(); ++k) {
        const SrFrameRecord& r = records[k];
        out << (k ? ",\n" : "\n") << "    {\"output_index\": " << r.outputIndex
            << ", \"input_index\": " << r.inputIndex
            << ", \"reference_input_index\": " << r.referenceInputIndex
            << ", \"engine_value\": " << (r.hasEngineValue ? number(r.engineValue, 7) : "null")
            << ", \"code\": " << r.code
            << ", \"quality\": " << (r.hasQuality() ? number(r.engineValue, 7) : "null")
            << ", \"fallback\": " << (r.fallback() ? "true" : "false") << ", \"failure\": ";
        if (r.fallback())
            out << "{\"kind\": " << jsonString(srFailureKind(r.failure))
                << ", \"message\": " << jsonString(r.message) << "}";
        else
            out << "null";
        out << ",\n     \"window\": [";
        for (std::size_t i = 0; i < r.window.size(); ++i) {
            const SrWindowFrame& w = r.window[i];
            out << (i ? ", " : "") << "{\"input_index\": " << w.inputIndex << ", \"shift\": ";
            if (w.registered)
                out << "[" << number(w.shiftX, 7) << ", " << number(w.shiftY, 7)
                    << "], \"masked_fraction\": " << number(w.maskedFraction, 6) << "}";
            else
                out << "null, \"masked_fraction\": null}";
        }
        out << "]";
        if (s.motion == SrMotion::Local)
            writeLocalFields(out, r);
        else if (s.engine == SrEngine::Fixed)
            writeFixedFields(out, r);
        else if (s.engine == SrEngine::Reference)
            writeReferenceFields(out, r);
        out << ",\n     \"registration_ms\": " << number(r.registrationMs, 6)
            << ", \"minimization_ms\": " << number(r.minimizationMs, 6)
            << ", \"total_ms\": " << number(r.totalMs, 6) << "}";
    }
    out << (records.empty() ? "]\n" : "\n  ]\n") << "}\n";
}

} // namespace kroenhance
