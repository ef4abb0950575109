! SPDX-License-Identifier: Apache-2.0
!
! statsubs for Fortran.
!
!   routines           outcome = fgintegrate(isub, nsamp, samples, weights, loglik); intrinsic names
!                      have a prefix: statsubs_erf, statsubs_gamma
!   shared scalars     get_leneta(), call set_leneta(2)
!   shared arrays      outcome = bind_shared(bind_theta, theta) for an allocated, column-major
!                      `theta`, which stays the caller's, is a TARGET and must not be reallocated
!                      while it is bound; outcome = point_to(get_xmusubnew, mean) for a pointer to
!                      what is bound
!   host               outcome = install_host(host) with the callables' c_funloc in a host_table;
!                      a callable is bind(c) and takes its arguments by reference
!
! Functions return statsubs_ok or another status of the list below.
module statsubs
  use, intrinsic :: iso_c_binding
  implicit none
  public

  integer(c_int), parameter :: statsubs_ok = 0
  integer(c_int), parameter :: statsubs_host_exception = 1
  integer(c_int), parameter :: statsubs_unusable_table = 2
  integer(c_int), parameter :: statsubs_unusable_argument = 3
  integer(c_int), parameter :: statsubs_refused = 4
  integer(c_int), parameter :: host_version = 1
  integer, parameter :: name_length = 100

  ! A callable that is a null pointer keeps its default.
  type, bind(c) :: host_table
    integer(c_int) :: size = 0     ! set by install_host
    integer(c_int) :: version = 0  ! likewise
    include 'statsubs/fortran/host_table.inc'
  end type

  abstract interface
    function get_integer() bind(c)
      import
      integer(c_int) :: get_integer
    end function
    subroutine set_integer(value) bind(c)
      import
      integer(c_int), value :: value
    end subroutine
    function get_real() bind(c)
      import
      real(c_double) :: get_real
    end function
    subroutine set_real(value) bind(c)
      import
      real(c_double), value :: value
    end subroutine

    function bind_integer_vector(storage, n) result(outcome) bind(c)
      import
      integer(c_int), target, intent(inout) :: storage(*)
      integer(c_int), value :: n
      integer(c_int) :: outcome
    end function
    function bind_real_vector(storage, n) result(outcome) bind(c)
      import
      real(c_double), target, intent(inout) :: storage(*)
      integer(c_int), value :: n
      integer(c_int) :: outcome
    end function
    function bind_name_vector(storage, n) result(outcome) bind(c)
      import
      character(kind=c_char), target, intent(inout) :: storage(*)
      integer(c_int), value :: n
      integer(c_int) :: outcome
    end function
    function bind_real_matrix(storage, rows, columns) result(outcome) bind(c)
      import
      real(c_double), target, intent(inout) :: storage(*)
      integer(c_int), value :: rows, columns
      integer(c_int) :: outcome
    end function
    function bind_real_cube(storage, rows, columns, slices) result(outcome) bind(c)
      import
      real(c_double), target, intent(inout) :: storage(*)
      integer(c_int), value :: rows, columns, slices
      integer(c_int) :: outcome
    end function

    function get_vector(storage, n) result(outcome) bind(c)
      import
      type(c_ptr), intent(out) :: storage
      integer(c_int), intent(out) :: n
      integer(c_int) :: outcome
    end function
    function get_matrix(storage, rows, columns) result(outcome) bind(c)
      import
      type(c_ptr), intent(out) :: storage
      integer(c_int), intent(out) :: rows, columns
      integer(c_int) :: outcome
    end function
    function get_cube(storage, rows, columns, slices) result(outcome) bind(c)
      import
      type(c_ptr), intent(out) :: storage
      integer(c_int), intent(out) :: rows, columns, slices
      integer(c_int) :: outcome
    end function
  end interface

  interface
    include 'statsubs/fortran/routines.inc'
  end interface

  include 'statsubs/fortran/shared_variables.inc'

  ! Binds an allocated array: bind_shared(bind_theta, theta).
  interface bind_shared
    module procedure bind_shared_integers, bind_shared_vector, bind_shared_matrix, bind_shared_cube
  end interface

  ! Makes a pointer an alias of a shared array: point_to(get_theta, alias).
  interface point_to
    module procedure point_to_integers, point_to_vector, point_to_integer_matrix, point_to_matrix, &
        point_to_cube
  end interface

  interface
    function c_install_host(table) result(outcome) bind(c, name="statsubs_install_host")
      import
      type(host_table), intent(in) :: table
      integer(c_int) :: outcome
    end function
    function c_last_error() result(text) bind(c, name="statsubs_last_error")
      import
      type(c_ptr) :: text
    end function
    ! `sink` is the c_funloc of a bind(c) subroutine (context, line, length): a c_ptr by value, a
    ! character array, an integer by value; c_null_funptr gives the unit back to standard output.
    function take_unit(unit, sink, context) result(outcome) bind(c, name="statsubs_take_unit")
      import
      integer(c_int), value :: unit
      type(c_funptr), value :: sink
      type(c_ptr), value :: context
      integer(c_int) :: outcome
    end function
    function c_place_engine_log(path) result(outcome) bind(c, name="statsubs_place_engine_log")
      import
      character(kind=c_char), intent(in) :: path(*)
      integer(c_int) :: outcome
    end function
  end interface
  private :: c_install_host, c_last_error, c_place_engine_log

contains

  function install_host(host) result(outcome)
    type(host_table), intent(inout) :: host
    integer(c_int) :: outcome
    host%size = int(c_sizeof(host), c_int)
    host%version = host_version
    outcome = c_install_host(host)
  end function

  ! Has the engine log stand at `path`, or at its default place when that is blank.
  function place_engine_log(path) result(outcome)
    character(*), intent(in) :: path
    integer(c_int) :: outcome
    outcome = c_place_engine_log(trim(path)//c_null_char)
  end function

  ! What the last status other than statsubs_ok was about.
  function last_error() result(text)
    character(:), allocatable :: text
    character(kind=c_char), pointer :: characters(:)
    integer :: n
    call c_f_pointer(c_last_error(), characters, [512])
    n = 0
    do while (characters(n + 1) /= c_null_char)
      n = n + 1
    end do
    allocate (character(n) :: text)
    text = transfer(characters(1:n), text)
  end function

  function bind_shared_integers(binder, array) result(outcome)
    procedure(bind_integer_vector) :: binder
    integer(c_int), allocatable, target, intent(inout) :: array(:)
    integer(c_int) :: outcome
    outcome = statsubs_unusable_argument
    if (allocated(array)) outcome = binder(array, size(array, kind=c_int))
  end function

  function bind_shared_vector(binder, array) result(outcome)
    procedure(bind_real_vector) :: binder
    real(c_double), allocatable, target, intent(inout) :: array(:)
    integer(c_int) :: outcome
    outcome = statsubs_unusable_argument
    if (allocated(array)) outcome = binder(array, size(array, kind=c_int))
  end function

  function bind_shared_matrix(binder, array) result(outcome)
    procedure(bind_real_matrix) :: binder
    real(c_double), allocatable, target, intent(inout) :: array(:, :)
    integer(c_int) :: outcome
    outcome = statsubs_unusable_argument
    if (allocated(array)) outcome = binder(array, size(array, 1, c_int), size(array, 2, c_int))
  end function

  function bind_shared_cube(binder, array) result(outcome)
    procedure(bind_real_cube) :: binder
    real(c_double), allocatable, target, intent(inout) :: array(:, :, :)
    integer(c_int) :: outcome
    outcome = statsubs_unusable_argument
    if (allocated(array)) &
        outcome = binder(array, size(array, 1, c_int), size(array, 2, c_int), size(array, 3, c_int))
  end function

  function point_to_integers(finder, alias) result(outcome)
    procedure(get_vector) :: finder
    integer(c_int), pointer, intent(out) :: alias(:)
    integer(c_int) :: outcome, n
    type(c_ptr) :: storage
    outcome = finder(storage, n)
    if (outcome == statsubs_ok) call c_f_pointer(storage, alias, [n])
  end function

  function point_to_vector(finder, alias) result(outcome)
    procedure(get_vector) :: finder
    real(c_double), pointer, intent(out) :: alias(:)
    integer(c_int) :: outcome, n
    type(c_ptr) :: storage
    outcome = finder(storage, n)
    if (outcome == statsubs_ok) call c_f_pointer(storage, alias, [n])
  end function

  function point_to_integer_matrix(finder, alias) result(outcome)
    procedure(get_matrix) :: finder
    integer(c_int), pointer, intent(out) :: alias(:, :)
    integer(c_int) :: outcome, rows, columns
    type(c_ptr) :: storage
    outcome = finder(storage, rows, columns)
    if (outcome == statsubs_ok) call c_f_pointer(storage, alias, [rows, columns])
  end function

  function point_to_matrix(finder, alias) result(outcome)
    procedure(get_matrix) :: finder
    real(c_double), pointer, intent(out) :: alias(:, :)
    integer(c_int) :: outcome, rows, columns
    type(c_ptr) :: storage
    outcome = finder(storage, rows, columns)
    if (outcome == statsubs_ok) call c_f_pointer(storage, alias, [rows, columns])
  end function

  function point_to_cube(finder, alias) result(outcome)
    procedure(get_cube) :: finder
    real(c_double), pointer, intent(out) :: alias(:, :, :)
    integer(c_int) :: outcome, rows, columns, slices
    type(c_ptr) :: storage
    outcome = finder(storage, rows, columns, slices)
    if (outcome == statsubs_ok) call c_f_pointer(storage, alias, [rows, columns, slices])
  end function

end module
