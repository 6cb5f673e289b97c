#pragma once

// A matrix member that owns its pixels (public because the engines' public
// headers hold such members): copying the object that holds it
// copies the pixels too (cv::Mat and cv::Mat_ share them on copy). With
// such members a class needs no hand-written copy constructor that clones
// them one by one (and forgets the next one added).

#include <utility>
#include <vector>

namespace velmor {
namespace kro {

template <class M>
class OwnedMat : public M {
public:
    using M::M;
    OwnedMat() = default;
    // Takes the matrix as given (shares its pixels, as M itself would).
    OwnedMat(const M& m) : M(m) {}
    OwnedMat(M&& m) noexcept : M(std::move(m)) {}
    OwnedMat(const OwnedMat& other) : M(other.clone()) {}
    OwnedMat(OwnedMat&& other) noexcept = default;
    OwnedMat& operator=(const OwnedMat& other)
    {
        if (this != &other)
            M::operator=(other.clone());
        return *this;
    }
    OwnedMat& operator=(OwnedMat&& other) noexcept = default;
    using M::operator=;
};

// A vector of matrices that owns their pixels: copying it copies every
// matrix's pixels. It is a std::vector<M>, so it is passed as such to code
// that fills or reads a list of matrices.
template <class M>
class OwnedMatVector : public std::vector<M> {
public:
    using std::vector<M>::vector;
    OwnedMatVector() = default;
    OwnedMatVector(const OwnedMatVector& other) : std::vector<M>(other.size())
    {
        for (std::size_t i = 0; i < other.size(); ++i)
            (*this)[i] = other[i].clone();
    }
    OwnedMatVector(OwnedMatVector&& other) noexcept = default;
    OwnedMatVector& operator=(const OwnedMatVector& other)
    {
        if (this != &other)
            *this = OwnedMatVector(other);
        return *this;
    }
    OwnedMatVector& operator=(OwnedMatVector&& other) noexcept = default;
};

} // namespace kro
} // namespace velmor
