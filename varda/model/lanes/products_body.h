// SPDX-License-Identifier: Apache-2.0
//
// Part of kernel_body.h: products of matrices in tiles.

// So many vectors of a row at a time that sums stay in registers.
constexpr std::size_t vectors_of_row = 2;

void add_products(const product_tile& tile, std::size_t inner) {
  constexpr std::size_t rows = product_tile::rows;
  for (std::size_t lane = 0; lane < lane_quantum; lane += vectors_of_row * width) {
    vec sum[rows][vectors_of_row];
    VARDA_UNROLL
    for (std::size_t r = 0; r < rows; ++r) {
      VARDA_UNROLL
      for (std::size_t v = 0; v < vectors_of_row; ++v)
        sum[r][v] = load(tile.c + r * tile.c_stride + lane + v * width);
    }
    for (std::size_t k = 0; k < inner; ++k) {
      const double* const a = tile.a + k * tile.a_stride;
      const double* const b = tile.b + k * lane_quantum + lane;
      VARDA_UNROLL
      for (std::size_t r = 0; r < rows; ++r) {
        const vec factor = all(a[r]);
        VARDA_UNROLL
        for (std::size_t v = 0; v < vectors_of_row; ++v)
          sum[r][v] = sum[r][v] + factor * load(b + v * width);
      }
    }
    VARDA_UNROLL
    for (std::size_t r = 0; r < rows; ++r) {
      VARDA_UNROLL
      for (std::size_t v = 0; v < vectors_of_row; ++v)
        store(tile.c + r * tile.c_stride + lane + v * width, sum[r][v]);
    }
  }
}

// Each of lane_quantum partial sums takes every lane_quantum-th sample, whatever the width.
void weigh_products(const weighed_products& of) {
  constexpr std::size_t side = 2;  // of a tile of sums
  const bool symmetric = of.x.values == of.y.values;
  const std::size_t whole = of.samples / lane_quantum * lane_quantum;
  for (std::size_t first = 0; first < of.x.count; first += side)
    for (std::size_t second = symmetric ? first : 0; second < of.y.count; second += side) {
      // A tile's missing quantities are its first again.
      const double* x[side];
      const double* y[side];
      for (std::size_t i = 0; i < side; ++i) {
        x[i] = of.x.values + (first + i < of.x.count ? first + i : first) * of.stride;
        y[i] = of.y.values + (second + i < of.y.count ? second + i : second) * of.stride;
      }
      double parts[side][side][lane_quantum];
      for (std::size_t lane = 0; lane < lane_quantum; lane += vectors_of_row * width) {
        vec sum[side][side][vectors_of_row] = {};
        for (std::size_t j = lane; j < whole; j += lane_quantum) {
          VARDA_UNROLL
          for (std::size_t v = 0; v < vectors_of_row; ++v) {
            const vec weight = load(of.weights + j + v * width);
            VARDA_UNROLL
            for (std::size_t a = 0; a < side; ++a) {
              const vec weighed = weight * load(x[a] + j + v * width);
              VARDA_UNROLL
              for (std::size_t b = 0; b < side; ++b)
                sum[a][b][v] = sum[a][b][v] + weighed * load(y[b] + j + v * width);
            }
          }
        }
        VARDA_UNROLL
        for (std::size_t a = 0; a < side; ++a) {
          VARDA_UNROLL
          for (std::size_t b = 0; b < side; ++b) {
            VARDA_UNROLL
            for (std::size_t v = 0; v < vectors_of_row; ++v)
              store(parts[a][b] + lane + v * width, sum[a][b][v]);
          }
        }
      }
      for (std::size_t a = 0; a < side && first + a < of.x.count; ++a)
        for (std::size_t b = 0; b < side && second + b < of.y.count; ++b) {
          if (symmetric && second + b < first + a) continue;
          double* const part = parts[a][b];
          for (std::size_t j = whole; j < of.samples; ++j)
            part[j - whole] += of.weights[j] * x[a][j] * y[b][j];
          const double sum = ((part[0] + part[4]) + (part[2] + part[6])) +
                             ((part[1] + part[5]) + (part[3] + part[7]));
          of.sums[first + a + (second + b) * of.x.count] = sum;
          if (symmetric) of.sums[second + b + (first + a) * of.x.count] = sum;
        }
    }
}
