# SPDX-License-Identifier: Apache-2.0
#
# Theophylline with a standard deviation a + b f (all rows) and b f^c (without the rows at time 0),
# with additive residuals of Student's t with 4 degrees of freedom (all rows) and with the Box-Cox
# transformation, lambda = 0.5 (without the rows at time 0): -2 log likelihood at the start values and
# its maximum by product Gauss-Hermite quadrature about each subject's mode, to compare varda with.
#
#   Rscript bench/residual_errors.R [examples/theophylline/theophylline.csv [KIND]]
arguments <- commandArgs(TRUE)
file <- if (length(arguments)) arguments[1] else "examples/theophylline/theophylline.csv"
rows <- read.csv(file, na.strings = ".")

# Nodes and weights for the standard normal density (Golub and Welsch).
hermite <- function(n) {
  k <- seq_len(n - 1)
  jacobi <- matrix(0, n, n)
  jacobi[cbind(k, k + 1)] <- jacobi[cbind(k + 1, k)] <- sqrt(k)
  e <- eigen(jacobi, symmetric = TRUE)
  list(x = e$values, w = e$vectors[1, ]^2)
}
rule <- hermite(21)
grid <- as.matrix(expand.grid(rule$x, rule$x, rule$x))
log_weight <- rowSums(log(as.matrix(expand.grid(rule$w, rule$w, rule$w))))

predict_all <- function(phi, dose, times) {
  ka <- exp(phi[, 1]); v <- exp(phi[, 3]); k <- exp(phi[, 2]) / v
  scale <- dose * ka / (v * (ka - k))
  scale * (exp(-outer(k, times)) - exp(-outer(ka, times)))
}

# log p(y | f), a matrix.
log_error <- list(
  "combined-sd" = function(y, f, p) dnorm(y, f, exp(p[7]) + exp(p[8]) * abs(f), log = TRUE),
  "power" = function(y, f, p) dnorm(y, f, exp(p[7]) * abs(f)^exp(p[8]), log = TRUE),
  "student-t" = function(y, f, p) dt((y - f) / exp(p[7]), 4, log = TRUE) - p[7],
  "box-cox" = function(y, f, p) {
    if (any(f <= 0)) return(matrix(-Inf, nrow(f), ncol(f)))
    dnorm(2 * sqrt(y), 2 * sqrt(f), exp(p[7]), log = TRUE) - log(y) / 2
  })
errors_of <- list("combined-sd" = c("additive", "proportional"),
                  "power" = c("proportional", "exponent"),
                  "student-t" = "additive", "box-cox" = "additive")
starts_of <- list("combined-sd" = c(0.2, 0.1), "power" = c(0.4, 0.4), "student-t" = 0.5,
                  "box-cox" = 0.4)

minus2ll <- function(p, kind, subjects) {
  mu <- p[1:3]; sd <- exp(p[4:6] / 2)
  total <- 0
  for (s in subjects) {
    log_joint <- function(phi) {
      f <- predict_all(phi, s$dose, s$time)
      y <- matrix(s$dv, nrow(f), ncol(f), byrow = TRUE)
      rowSums(log_error[[kind]](y, f, p)) +
        rowSums(dnorm(phi, matrix(mu, nrow(phi), 3, byrow = TRUE),
                      matrix(sd, nrow(phi), 3, byrow = TRUE), log = TRUE))
    }
    height <- function(x) {
      value <- -log_joint(matrix(x, 1))
      if (is.finite(value)) value else 1e10
    }
    mode <- optim(mu, height, method = "BFGS", hessian = TRUE,
                  control = list(reltol = 1e-12))
    root <- t(chol(solve(mode$hessian)))
    phi <- sweep(grid %*% t(root), 2, mode$par, "+")
    value <- log_joint(phi) + log_weight + rowSums(grid^2) / 2 + 1.5 * log(2 * pi) +
      sum(log(diag(root)))
    top <- max(value)
    total <- total + top + log(sum(exp(value - top)))
  }
  -2 * total
}

kinds <- if (length(arguments) > 1) arguments[2] else names(log_error)
for (kind in kinds) {
  subjects <- lapply(split(rows, rows$ID), function(own) {
    seen <- own[own$EVID == 0 & (!(kind %in% c("power", "box-cox")) | own$TIME > 0), ]
    list(dose = own$AMT[own$EVID == 1], time = seen$TIME, dv = seen$DV)
  })
  start <- c(log(c(1.5, 2.75, 31.8)), log(c(0.4, 0.07, 0.017)), log(starts_of[[kind]]))
  cat(sprintf("%s: -2LL at the start %.4f\n", kind, minus2ll(start, kind, subjects)))
  found <- nlm(minus2ll, start, kind = kind, subjects = subjects, hessian = TRUE, gradtol = 1e-7, stepmax = 0.3)
  se <- sqrt(diag(solve(found$hessian / 2)))
  cat(sprintf("%s: -2LL %.4f\n", kind, found$minimum))
  print(data.frame(name = c("ka", "CL", "V", "omega(ka,ka)", "omega(CL,CL)", "omega(V,V)",
                            errors_of[[kind]]),
                   estimate = exp(found$estimate), relative_se = se), digits = 7)
}
