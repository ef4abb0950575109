// SPDX-License-Identifier: Apache-2.0
//
// A section of a program with memory: temporaries and numbers for a block of lanes, and the places
// of what it reads and writes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "varda/model/equations/formula_program.h"
#include "varda/model/lanes/array.h"
#include "varda/model/lanes/kernel.h"

namespace varda {

class bound_section {
 public:
  // `section` must outlive this. At most `lanes` lanes are evaluated at once.
  bound_section(const compiled_section& section, std::size_t lanes)
      : section_(&section), registers_(section.code.registers()) {
    const std::size_t leaves = section.leaves.size();
    memory_.fill((leaves + section.code.temporaries) * lanes, 0.0);
    for (std::size_t k = 0; k < leaves; ++k) {
      if (section.leaves[k].kind != leaf_kind::number) continue;
      registers_[k] = memory_.data() + k * lanes;
      std::fill(registers_[k], registers_[k] + lanes, section.leaves[k].number);
    }
    for (std::size_t k = 0; k < section.code.temporaries; ++k)
      registers_[leaves + section.code.results + k] = memory_.data() + (leaves + k) * lanes;
  }

  // place(leaf) is where the block of a leaf other than a number begins; it is only read.
  template <class Place>
  void read_from(Place place) {
    for (std::size_t k = 0; k < section_->leaves.size(); ++k)
      if (section_->leaves[k].kind != leaf_kind::number)
        registers_[k] = const_cast<double*>(place(section_->leaves[k]));
  }
  // Result k goes to first + k stride.
  void write_to(double* first, std::size_t stride) {
    for (std::size_t k = 0; k < section_->code.results; ++k)
      registers_[section_->leaves.size() + k] = first + k * stride;
  }
  void write_to(std::size_t result, double* place) {
    registers_[section_->leaves.size() + result] = place;
  }
  void run(const lane_kernel& kernel, std::size_t lanes) const {
    kernel.run(section_->code.operations.data(), section_->code.operations.size(),
               registers_.data(), lanes);
  }

 private:
  const compiled_section* section_;
  std::vector<double*> registers_;
  lane_array memory_;
};

}  // namespace varda
