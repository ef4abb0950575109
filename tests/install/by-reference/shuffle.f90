! SPDX-License-Identifier: Apache-2.0
!
! No module: external procedures, and a callable that is found by its name. With u = 1/2 always,
! entry i of n changes places with entry ceiling((n - i)/2 + i).
function dran3(state)
  integer :: state
  double precision :: dran3
  state = state + 1
  dran3 = 0.5d0
end function

program shuffle
  implicit none
  double precision :: a(4) = [1d0, 2d0, 3d0, 4d0], below, above
  double precision, external :: gamln
  external :: install_host_by_name, knuth_shuf, cumnor
  call install_host_by_name
  call knuth_shuf(a, 4)
  call cumnor(0d0, below, above)
  print '(6f6.2)', a, below, gamln(3d0)
end program
