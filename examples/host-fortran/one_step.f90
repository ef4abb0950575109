! SPDX-License-Identifier: Apache-2.0
!
! One E- and M-step of y_ij = theta + eta_i + e_ij, eta_i ~ N(0, omega), e_ij ~ N(0, sigma^2).
module engine
  use statsubs
  implicit none
  integer, parameter :: subjects = 4
  real(c_double), parameter :: ln_two_pi = 1.8378770664093454836d0, sigma = 0.8d0
  real(c_double), parameter :: y(11) = [4.1d0, 5.3d0, 4.6d0, 6.8d0, 7.4d0, 3.9d0, 3.1d0, 4.4d0, &
      2.7d0, 5.6d0, 5.1d0]
  integer(c_int), allocatable, target :: first(:), position(:), type(:)
  real(c_double), allocatable, target :: theta(:), centre(:), mean(:), omega_factor(:, :), &
      omega_inverse_factor(:, :), covariance(:, :), proposal_factor(:, :)
  integer :: subject = 0
contains
  ! The negative joint log density of a subject's observations and its random effect, constants
  ! included; zscoresub is the sum of its squared scaled residuals.
  subroutine objective(n, eta, f) bind(c)
    integer(c_int), intent(in) :: n
    real(c_double), intent(in) :: eta(n)
    real(c_double), intent(out) :: f
    real(c_double) :: z(first(subject + 1) - first(subject))
    z = (y(first(subject):first(subject + 1) - 1) - theta(1) - eta(1)) / sigma
    call set_zscoresub(sum(z**2))
    f = 0.5d0 * sum(z**2) + size(z) * log(sigma) + 0.5d0 * (eta(1) / omega_factor(1, 1))**2 &
        + log(omega_factor(1, 1)) + 0.5d0 * (size(z) + n) * ln_two_pi
  end subroutine
  subroutine select_subject(isub) bind(c)
    integer(c_int), intent(in) :: isub
    subject = isub
  end subroutine
  subroutine nothing_to_set(values) bind(c)
    real(c_double), intent(in) :: values(*)
  end subroutine
  function go_on() bind(c)
    integer(c_int) :: go_on
    go_on = 0  ! nobody asks for a stop
  end function
  subroutine tell_globalstop(flag) bind(c)
    integer(c_int), intent(inout) :: flag
    call set_globalstop(flag)
  end subroutine
  subroutine c_matrix(isub0, cmatrix) bind(c)
    integer(c_int), intent(in) :: isub0
    real(c_double), intent(out) :: cmatrix(1, 1)
    cmatrix = 1.0d0
  end subroutine
  subroutine no_record(context, line, n) bind(c)
    type(c_ptr), value :: context
    character(kind=c_char), intent(in) :: line(*)
    integer(c_int), value :: n
  end subroutine
  subroutine check(outcome)
    integer(c_int), intent(in) :: outcome
    if (outcome /= statsubs_ok) error stop 'a call of statsubs failed'
  end subroutine
end module

program one_step
  use engine
  implicit none
  integer(c_int), parameter :: samples = 3000
  type(host_table) :: host
  logical(c_bool) :: ok(2)
  integer(c_int) :: i, quality
  real(c_double) :: point(1), loglik, total = 0, squares = 0, estimate(1), unused(1), omega
  real(c_double) :: drawn(samples), weights(samples), means(subjects), variances(subjects)
  host%setisub = c_funloc(select_subject); host%getsaemcmatrix = c_funloc(c_matrix)
  host%seteta = c_funloc(nothing_to_set); host%settheta = c_funloc(nothing_to_set)
  host%stoprequested = c_funloc(go_on); host%checkforstop = c_funloc(tell_globalstop)
  host%fcnxeta = c_funloc(objective)
  call check(install_host(host))
  call check(take_unit(6, c_funloc(no_record), c_null_ptr))  ! the library's own records
  ! Subject i has observations first(i) .. first(i+1) - 1.
  first = [1, 4, 6, 10, 12]; position = [1]; type = [1]; theta = [5.0d0]; centre = [0.0d0]
  mean = centre; omega_factor = reshape([1.2d0], [1, 1]); omega_inverse_factor = omega_factor
  covariance = omega_factor; proposal_factor = omega_factor
  call set_leneta(1); call set_ntheta(1); call set_nsub(subjects); call set_numprocs(1)
  call set_accratio(0.5d0); call check(bind_shared(bind_theta, theta))
  call check(bind_shared(bind_newsub, first)); call check(bind_shared(bind_xmusub, centre))
  call check(bind_shared(bind_omegalchol, omega_factor))
  call check(bind_shared(bind_omegalcholinv, omega_inverse_factor))
  call check(bind_shared(bind_omegacholsub, proposal_factor))
  call check(bind_shared(bind_xmusubnew, mean)); call check(bind_shared(bind_omegasubnew, covariance))
  call check(bind_shared(bind_iseqtheta, position)); call check(bind_shared(bind_itypetheta, type))
  call check(poly_vinit_define())
  call check(insobl(ok, 1, 2**30 - 1, quality, point, 30, 1))
  do i = 1, subjects
    call check(fgintegrate(i, samples, drawn, weights, loglik))
    total = total + loglik
    squares = squares + get_wtsumzscore() * (first(i + 1) - first(i))
    means(i) = theta(1) + mean(1); variances(i) = covariance(1, 1)
  end do
  call check(lrtheta(1, estimate, means, unused, unused, 1, 0, 1, [1]))
  omega = sum(variances + (means - estimate(1))**2) / subjects
  print '(a20,f10.4)', '-2 log-likelihood   ', -2 * total, &
      'theta               ', estimate(1), 'omega               ', omega, &
      'sigma               ', sigma * sqrt(squares / size(y))
end program
