// Super-resolves five 16-bit frames with the C++ engine.
//
//   superresolve frame0.png frame1.png frame2.png frame3.png frame4.png out.pfm
//
// The frames must have one size; the result has twice the width and height
// and is written as a portable float map.
#include <iostream>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include <krolib/Exception.h>
#include <krolib/ImageIO.h>
#include <krolib/SrFloat.h>

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::cerr << "usage: " << argv[0] << " FRAME0 FRAME1 FRAME2 FRAME3 FRAME4 OUT.pfm\n";
        return 2;
    }
    std::vector<cv::Mat_<float>> frames;
    for (int i = 1; i <= 5; ++i) {
        const cv::Mat image = cv::imread(argv[i], cv::IMREAD_UNCHANGED);
        if (image.empty() || image.channels() != 1) {
            std::cerr << argv[i] << ": not a single-channel image\n";
            return 1;
        }
        cv::Mat_<float> frame;
        image.convertTo(frame, CV_32F);
        frames.push_back(frame);
    }
    try {
        velmor::kro::SrFloat<velmor::kro::SrFloatRegistration2> engine(frames[0].cols, frames[0].rows, 5, 2.0f);
        engine.setReferenceIndex(3);
        for (const cv::Mat_<float>& frame : frames)
            engine.addFrame(frame);
        cv::Mat_<float> result;
        const float quality = engine.computeSR(result);
        std::cout << "quality " << quality << ", " << result.cols << "x" << result.rows << "\n";
        return velmor::kro::ImageIO::save(argv[6], result, velmor::kro::ImageIO::kSaveAtomic) ? 0 : 1;
    } catch (const velmor::kro::Exception& e) {
        std::cerr << "error: " << e.what() << " (" << e.where() << ")\n";
    } catch (const char* message) {
        std::cerr << "error: " << message << "\n";
    }
    return 1;
}
