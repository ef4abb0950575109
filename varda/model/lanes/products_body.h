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
