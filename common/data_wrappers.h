#pragma once
// Non-owning strided views. The aligners receive the mismatch matrix as a
// MatView and each sequence as a VecView of base codes.

#include <cstddef>
#include <stdexcept>
#include <string>

namespace brim::data_wrappers {

template <typename T>
class VecView {
public:
    VecView() = default;
    VecView(T* data, size_t size, size_t stride = 1) : data_(data), size_(size), stride_(stride) {
        if (data == nullptr && size > 0) throw std::runtime_error("Cannot view nullptr with size > 0");
        if (stride == 0) throw std::runtime_error("Stride cannot be zero.");
    }
    T* data() const { return data_; }
    size_t size() const { return size_; }
    size_t stride() const { return stride_; }
    T& operator[](size_t i) const { return data_[i * stride_]; }

private:
    T* data_ = nullptr;
    size_t size_ = 0;
    size_t stride_ = 1;
};

template <typename T>
class MatView {
public:
    MatView() = default;
    MatView(T* data, size_t rows, size_t cols, size_t row_stride, size_t col_stride)
        : data_(data), rows_(rows), cols_(cols), row_stride_(row_stride), col_stride_(col_stride) {
        if (data == nullptr && rows * cols > 0) throw std::runtime_error("Cannot view nullptr with size > 0");
        if (row_stride == 0 || col_stride == 0)
            throw std::runtime_error("Strides (" + std::to_string(row_stride) + "," + std::to_string(col_stride) +
                                     ") cannot be zero.");
    }
    // Row-major contiguous view.
    MatView(T* data, size_t rows, size_t cols) : MatView(data, rows, cols, cols == 0 ? 1 : cols, 1) {}

    T* data() const { return data_; }
    size_t rows() const { return rows_; }
    size_t cols() const { return cols_; }
    size_t row_stride() const { return row_stride_; }
    size_t col_stride() const { return col_stride_; }
    T& operator()(size_t r, size_t c) const { return data_[r * row_stride_ + c * col_stride_]; }
    VecView<T> row(size_t r) const {
        if (r >= rows_) throw std::runtime_error("row index out of bounds.");
        return VecView<T>(data_ + r * row_stride_, cols_, col_stride_);
    }

private:
    T* data_ = nullptr;
    size_t rows_ = 0;
    size_t cols_ = 0;
    size_t row_stride_ = 1;
    size_t col_stride_ = 1;
};

}  // namespace brim::data_wrappers
