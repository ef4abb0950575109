# SPDX-License-Identifier: Apache-2.0
#
# Endpoints that are not continuous: the maxima of the likelihood of the models in
# tests/varda/endpoints by Gauss-Hermite quadrature about each subject's mode, and what lme4, ordinal
# and survival find, beside the estimates of varda.
#
#   Rscript bench/endpoints.R build/release/bin/varda [tests/varda/endpoints [METHOD [MODEL]]]
#
# With - for the program only the quadrature and the peers are computed.
arguments <- commandArgs(TRUE)
program <- arguments[1]
folder <- if (length(arguments) > 1) arguments[2] else "tests/varda/endpoints"
method <- if (length(arguments) > 2) arguments[3] else "newton"

# Nodes and weights for the standard normal density (Golub and Welsch).
hermite <- function(n) {
  k <- seq_len(n - 1)
  jacobi <- matrix(0, n, n)
  jacobi[cbind(k, k + 1)] <- jacobi[cbind(k + 1, k)] <- sqrt(k)
  e <- eigen(jacobi, symmetric = TRUE)
  list(x = e$values, w = e$vectors[1, ]^2)
}

# -2 log-likelihood by quadrature about each subject's posterior mean and covariance, as far as the
# object knows them: `log_rows(p, d, e)` tells the logarithm of the density of every row of d at
# random effects e, a list with a matrix rows x points for each effect. The last entries of p are the
# logarithms of the variances.
quadrature <- function(model, d, nodes) {
  effects <- model$effects
  rule <- hermite(nodes)
  grid <- as.matrix(expand.grid(rep(list(rule$x), effects)))
  log_weight <- rowSums(log(as.matrix(expand.grid(rep(list(rule$w), effects))))) +
    rowSums(grid^2) / 2 + effects / 2 * log(2 * pi)
  id <- match(d$ID, unique(d$ID))
  subjects <- max(id)
  sd0 <- exp(tail(model$start, effects) / 2)
  centre <- matrix(0, subjects, effects)
  root <- array(0, c(subjects, effects, effects))
  for (k in seq_len(effects)) root[, k, k] <- sd0[k]
  points <- function() lapply(seq_len(effects), function(k) {
    e <- matrix(centre[, k], subjects, nrow(grid))
    for (j in seq_len(k)) e <- e + root[, k, j] %o% grid[, j]
    e
  })
  log_joint <- function(p, e) {
    value <- rowsum(model$log_rows(p, d, lapply(e, function(x) x[id, , drop = FALSE])), id)
    sd <- exp(tail(p, effects) / 2)
    for (k in seq_len(effects)) value <- value + dnorm(e[[k]], 0, sd[k], log = TRUE)
    scale <- vapply(seq_len(subjects), function(i) sum(log(diag(as.matrix(root[i, , ])))), 0)
    value + rep(log_weight, each = subjects) + scale
  }
  minus2ll <- function(p) {
    value <- log_joint(p, points())
    top <- apply(value, 1, max)
    -2 * sum(top + log(rowSums(exp(value - top))))
  }
  follow <- function(p) for (turn in 1:6) {
    e <- points()
    value <- log_joint(p, e)
    w <- exp(value - apply(value, 1, max))
    w <- w / rowSums(w)
    for (k in seq_len(effects)) centre[, k] <<- rowSums(w * e[[k]])
    for (i in seq_len(subjects)) {
      x <- vapply(seq_len(effects), function(k) e[[k]][i, ] - centre[i, k], grid[, 1])
      root[i, , ] <<- t(chol(crossprod(x, x * w[i, ])))
    }
  }
  list(minus2ll = minus2ll, follow = follow)
}

weibull_rows <- function(p, d, e) {
  scale <- exp(p[1] + e[[1]] + p[3] * d$TRT)
  H <- function(t) (t / scale)^exp(p[2])
  L <- ifelse(is.na(d$LIMIT), 0, d$LIMIT)
  exact <- p[2] + (exp(p[2]) - 1) * log(d$TIME / scale) - log(scale) - H(d$TIME)
  inside <- log(exp(-H(L)) - exp(-H(d$TIME)))
  ifelse(d$DV + 0 * scale == 0, -H(d$TIME), ifelse(d$CENS + 0 * scale == 0, exact, inside))
}

cuts <- function(p) cumsum(c(p[2], exp(p[3:4])))

models <- list(
  poisson = list(start = c(0.7, -0.2, -1), effects = 1, data = "poisson.csv",
    log_rows = function(p, d, e) {
      m <- exp(p[1] + p[2] * d$TRT + e[[1]])
      d$DV * log(m) - m - lgamma(d$DV + 1)
    },
    natural = function(p) c(base = exp(p[1]), drug = p[2], omega = exp(p[3]))),
  binary = list(start = c(-0.5, 0.1, -0.5), effects = 1, data = "binary.csv",
    log_rows = function(p, d, e)
      plogis((2 * d$DV - 1) * (p[1] + p[2] * d$TIME + e[[1]]), log.p = TRUE),
    natural = function(p) c(level = p[1], slope = p[2], omega = exp(p[3]))),
  ordinal = list(start = c(0.5, -0.5, 0, 0, -0.5), effects = 1, data = "ordinal.csv",
    log_rows = function(p, d, e) {
      k <- match(d$DV, c(1, 2, 4, 8))
      b <- c(-Inf, cuts(p), Inf)
      x <- p[1] * d$TRT + e[[1]]
      log(plogis(b[k + 1] - x) - plogis(b[k] - x))
    },
    natural = function(p) c(drug = p[1], b1 = p[2], d2 = exp(p[3]), d3 = exp(p[4]),
                            omega = exp(p[5]))),
  `negative-binomial` = list(start = c(1.1, -1, -1.5), effects = 1, data = "counts.csv",
    log_rows = function(p, d, e)
      matrix(dnbinom(d$DV, size = exp(-p[2]), mu = exp(p[1] + e[[1]]), log = TRUE), nrow(d)),
    natural = function(p) c(base = exp(p[1]), alpha = exp(p[2]), omega = exp(p[3]))),
  `zero-inflated` = list(start = c(1.3, -0.7, -1.4, -1.2), effects = 1, data = "counts.csv",
    log_rows = function(p, d, e) {
      share <- plogis(p[3])
      count <- matrix(dnbinom(d$DV, size = exp(-p[2]), mu = exp(p[1] + e[[1]])), nrow(d))
      log((d$DV == 0) * share + (1 - share) * count)
    },
    natural = function(p) c(base = exp(p[1]), alpha = exp(p[2]), zeros = p[3], omega = exp(p[4]))),
  weibull = list(start = c(2.1, 0.3, 0.3, -2), effects = 1, data = "events.csv",
    log_rows = weibull_rows,
    natural = function(p) c(scale = exp(p[1]), shape = exp(p[2]), drug = p[3], omega = exp(p[4]))),
  joint = list(start = c(0.8, -1.8, 1, 0.2, -1.5, -1.8, -1.6), effects = 2, data = "joint.csv",
    log_rows = function(p, d, e) {
      conc <- 10 / exp(p[1]) * exp(-exp(p[2] + e[[1]]) * d$TIME)
      m <- exp(p[3] + e[[2]] - p[4] * conc)
      ifelse(d$DVID + 0 * conc == 1, dnorm(d$DV, conc, exp(p[5]) * conc, log = TRUE),
             d$DV * log(m) - m - lgamma(d$DV + 1))
    },
    natural = function(p) c(V = exp(p[1]), k = exp(p[2]), base = exp(p[3]), effect = p[4],
                            proportional = exp(p[5]), omega_k = exp(p[6]), omega_base = exp(p[7]))))
# The same model with the hazard integrated.
models$`weibull-hazard` <- models$weibull

minus2_of <- function(output) {
  text <- grep("\"minus2ll\"", readLines(file.path(output, "fit.json")), value = TRUE)[1]
  as.numeric(gsub("[^0-9.eE+-]", "", sub(".*:", "", text)))
}

fitted_by_varda <- function(name) {
  if (program == "-")
    return(list(status = NA, m2ll = NA, estimates = data.frame(parameter = "", estimate = NA, se = NA)))
  output <- file.path(tempdir(), name)
  text <- readLines(file.path(folder, paste0(name, ".toml")))
  text <- sub("file = \"", paste0("file = \"", normalizePath(folder), "/"), text)
  model <- paste0(output, ".toml")
  writeLines(c(text, "", "[estimation]", sprintf("method = \"%s\"", method), "npde_samples = 0"),
             model)
  status <- system2(program, c("fit", model, "--output", output), stdout = FALSE, stderr = FALSE)
  estimates <- read.csv(file.path(output, "estimates.csv"))
  list(status = status, estimates = estimates, m2ll = minus2_of(output))
}

# What varda calls a quantity that the quadrature has under another name.
varda_name <- function(name, effects, all) {
  if (name == "omega") return(grep("^omega", all, value = TRUE)[1])
  if (startsWith(name, "omega_")) {
    of <- sub("omega_", "", name)
    return(sprintf("omega(%s,%s)", of, of))
  }
  if (name == "proportional") return("conc.proportional")
  name
}

peer <- function(name, data) {
  if (name == "poisson" && requireNamespace("lme4", quietly = TRUE)) {
    m <- lme4::glmer(DV ~ TRT + (1 | ID), data, poisson, nAGQ = 25)
    v <- as.numeric(lme4::VarCorr(m)$ID)
    return(c(base = exp(unname(lme4::fixef(m)[1])), drug = unname(lme4::fixef(m)[2]), omega = v))
  }
  if (name == "binary" && requireNamespace("lme4", quietly = TRUE)) {
    m <- lme4::glmer(DV ~ TIME + (1 | ID), data, binomial, nAGQ = 25)
    v <- as.numeric(lme4::VarCorr(m)$ID)
    return(c(level = unname(lme4::fixef(m)[1]), slope = unname(lme4::fixef(m)[2]), omega = v))
  }
  if (name == "ordinal" && requireNamespace("ordinal", quietly = TRUE)) {
    data$Y <- factor(data$DV, ordered = TRUE)
    data$ID <- factor(data$ID)
    m <- ordinal::clmm(Y ~ TRT + (1 | ID), data = data, nAGQ = 15)
    b <- unname(m$alpha)
    return(c(drug = unname(m$beta), b1 = b[1], d2 = b[2] - b[1], d3 = b[3] - b[2],
             omega = as.numeric(ordinal::VarCorr(m)$ID)))
  }
  NULL
}

chosen <- if (length(arguments) > 3) arguments[4] else names(models)
for (name in chosen) {
  m <- models[[name]]
  data <- read.csv(file.path(folder, m$data), na.strings = ".")
  rows <- if (is.null(data$AMT)) data else data[is.na(data$AMT), ]
  integral <- quadrature(m, rows, if (m$effects > 1) 21 else 41)
  best <- list(par = m$start)
  repeat {
    before <- best$par
    integral$follow(before)
    best <- nlminb(before, integral$minus2ll, control = list(rel.tol = 1e-12))
    if (max(abs(best$par - before)) < 1e-5) break
  }
  varda <- fitted_by_varda(name)
  own <- m$natural(best$par)
  other <- peer(name, data)
  cat(sprintf("\n%s (%s, status %d): -2LL by quadrature %.4f at its maximum, varda %.4f\n", name,
              method, varda$status, best$objective, varda$m2ll))
  cat(sprintf("%-12s %12s %12s %12s %12s %9s\n", "", "varda", "se", "quadrature", "peer", "off, %"))
  for (q in names(own)) {
    row <- varda$estimates[varda$estimates$parameter ==
                             varda_name(q, m$effects, varda$estimates$parameter), ]
    if (nrow(row) != 1) row <- data.frame(estimate = NA, se = NA)
    cat(sprintf("%-12s %12.5f %12.5f %12.5f %12.5f %9.3f\n", q, row$estimate, row$se, own[q],
                if (is.null(other)) NA else other[q], 100 * (row$estimate / own[q] - 1)))
  }
}

# Without random effects: a variance of nothing in varda, survreg in R. Intervals as survival has
# them; its scale is 1 / shape.
if (length(arguments) < 4 && program != "-") {
  text <- readLines(file.path(folder, "weibull.toml"))
  text <- sub("file = \"", paste0("file = \"", normalizePath(folder), "/"), text)
  text <- sub("^scale = 0.1$", "scale = { variance = 1e-8, fixed = true }", text)
  model <- file.path(tempdir(), "fixed.toml")
  writeLines(c(text, "[estimation]", sprintf("method = \"%s\"", method)), model)
  output <- file.path(tempdir(), "fixed")
  system2(program, c("fit", model, "--output", output), stdout = FALSE, stderr = FALSE)
  estimates <- read.csv(file.path(output, "estimates.csv"))
  if (requireNamespace("survival", quietly = TRUE)) {
    d <- read.csv(file.path(folder, "events.csv"), na.strings = ".")
    from <- ifelse(d$DV == 0 | d$CENS == 0, d$TIME, d$LIMIT)
    to <- ifelse(d$DV == 0, NA, d$TIME)
    s <- survival::survreg(survival::Surv(from, to, type = "interval2") ~ d$TRT, dist = "weibull")
    r <- c(scale = exp(unname(coef(s)[1])), shape = 1 / s$scale, drug = unname(coef(s)[2]))
    cat("\nweibull without random effect\n")
    for (q in names(r)) {
      e <- estimates$estimate[estimates$parameter == q]
      cat(sprintf("%-12s %12.5f (varda) %12.5f (survreg), off by %.4f %%\n", q, e, r[q],
                  100 * (e / r[q] - 1)))
    }
    # survreg has no densities' constants left out: the log-likelihood of times.
    cat(sprintf("-2LL %.4f (varda) %.4f (survreg)\n", minus2_of(output), -2 * s$loglik[2]))
  }
}
