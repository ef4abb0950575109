# SPDX-License-Identifier: Apache-2.0
#
#   Rscript bench/peers.R DATA.csv FOLDER additive|proportional RUNS BENCH_FOLDER START...
#
# Fits the oral model with R's nlme (linearised), lme4 (Laplace on the linearised model; additive
# error only) and TMB (Laplace), from the start values ka CL V weight omega2(ka) omega2(CL)
# omega2(V) sd, and prints for each the seconds of the fastest of RUNS fits. Writes each one's
# estimates as a model file FOLDER/PEER.toml. The coefficient of the weight is left out when its
# start value is NA. Compiling TMB's template and loading packages are not counted.
suppressMessages({
  library(nlme)
  has_lme4 <- require(lme4, quietly = TRUE)
  has_tmb <- require(TMB, quietly = TRUE)
})
arguments <- commandArgs(trailingOnly = TRUE)
data_file <- normalizePath(arguments[1])
folder <- arguments[2]
proportional <- arguments[3] == "proportional"
runs <- as.integer(arguments[4])
bench <- arguments[5]
start <- suppressWarnings(as.numeric(arguments[6:13]))
weight <- !is.na(start[4])

records <- read.csv(data_file, na.strings = ".")
dose <- records[!is.na(records$AMT) & records$AMT > 0, ]
d <- records[is.na(records$AMT) | records$AMT == 0, ]
d$DOSE <- dose$AMT[match(d$ID, dose$ID)]
d$LW <- log(d$WT / 70)
d$ID <- factor(d$ID, levels = unique(d$ID))

write_model <- function(peer, theta, coefficient, omega2, sd) {
  effect <- if (weight) sprintf(
    ', covariates = [{ column = "WT", center = 70, start = %.10g }]', coefficient) else ""
  error <- if (proportional) "proportional" else "additive"
  writeLines(c(
    "[data]", sprintf('file = "%s"', data_file),
    "[model]", 'structure = "one-compartment oral"', "[parameters]",
    sprintf("ka = { start = %.10g }", theta[1]),
    sprintf("CL = { start = %.10g%s }", theta[2], effect),
    sprintf("V = { start = %.10g }", theta[3]),
    "[omega]", sprintf("%s = %.10g", c("ka", "CL", "V"), omega2),
    "[residual]", sprintf('error = "%s"', error), sprintf("%s = %.10g", error, sd),
    "[estimation]", "samples = 3000"), file.path(folder, paste0(peer, ".toml")))
}

fastest <- function(fit) {
  best <- Inf
  for (run in seq_len(runs)) {
    seconds <- system.time(result <- fit())[["elapsed"]]
    best <- min(best, seconds)
  }
  list(seconds = best, fit = result)
}

report <- function(peer, version, timed, objective) {
  cat(sprintf("%s %s %.3f %.4f\n", peer, version, timed$seconds, objective))
}

concentration <- function(lka, lCL, lV, LW, b, DOSE, TIME) {
  ka <- exp(lka)
  V <- exp(lV)
  k <- exp(lCL + b * LW) / V
  DOSE * ka / (V * (ka - k)) * (exp(-k * TIME) - exp(-ka * TIME))
}
fixed <- log(start[1:3])

try_nlme <- function() {
  grouped <- groupedData(DV ~ TIME | ID, d)
  variance <- if (proportional) varPower(fixed = 1) else NULL
  timed <- fastest(function() {
    if (weight)
      nlme(DV ~ concentration(lka, lCL, lV, LW, b, DOSE, TIME), grouped,
           fixed = lka + lCL + lV + b ~ 1, random = pdDiag(lka + lCL + lV ~ 1),
           start = c(fixed, start[4]), weights = variance, method = "ML")
    else
      nlme(DV ~ concentration(lka, lCL, lV, LW, 0, DOSE, TIME), grouped,
           fixed = lka + lCL + lV ~ 1, random = pdDiag(lka + lCL + lV ~ 1),
           start = fixed, weights = variance, method = "ML")
  })
  est <- fixef(timed$fit)
  write_model("nlme", exp(est[1:3]), if (weight) est[4] else NA,
              as.numeric(VarCorr(timed$fit)[1:3, 1]), timed$fit$sigma)
  report("nlme", packageVersion("nlme"), timed, -2 * as.numeric(logLik(timed$fit)))
}

try_lme4 <- function() {
  if (proportional || weight) return(cat("lme4 - - -\n"))
  with_gradient <- deriv(
    ~ DOSE * exp(lka) / (exp(lV) * (exp(lka) - exp(lCL - lV))) *
      (exp(-exp(lCL - lV) * TIME) - exp(-exp(lka) * TIME)),
    c("lka", "lCL", "lV"), function(DOSE, TIME, lka, lCL, lV) {})
  timed <- fastest(function()
    suppressWarnings(nlmer(DV ~ with_gradient(DOSE, TIME, lka, lCL, lV) ~
                             (lka | ID) + (lCL | ID) + (lV | ID), d,
                           start = c(lka = fixed[1], lCL = fixed[2], lV = fixed[3]))))
  est <- exp(fixef(timed$fit))
  omega2 <- unlist(VarCorr(timed$fit))[c("ID", "ID.1", "ID.2")]
  write_model("lme4", est, NA, omega2, sigma(timed$fit))
  report("lme4", packageVersion("lme4"), timed, -2 * as.numeric(logLik(timed$fit)))
}

try_tmb <- function() {
  template <- file.path(folder, "oral_laplace")
  file.copy(file.path(bench, "oral_laplace.cpp"), paste0(template, ".cpp"), overwrite = TRUE)
  invisible(capture.output(compile(paste0(template, ".cpp"), "-O2 -w")))
  dyn.load(dynlib(template))
  timed <- fastest(function() {
    f <- MakeADFun(
      list(y = d$DV, time = d$TIME, dose = d$DOSE, log_weight = d$LW,
           subject = as.integer(d$ID) - 1L, proportional = as.integer(proportional)),
      list(typical = fixed, weight_on_cl = if (weight) start[4] else 0,
           log_omega = 0.5 * log(start[5:7]), log_sigma = log(start[8]),
           eta = matrix(0, nlevels(d$ID), 3)),
      map = if (weight) list() else list(weight_on_cl = factor(NA)),
      random = "eta", DLL = "oral_laplace", silent = TRUE)
    nlminb(f$par, f$fn, f$gr)
  })
  p <- timed$fit$par
  write_model("TMB", exp(p[names(p) == "typical"]), p["weight_on_cl"],
              exp(2 * p[names(p) == "log_omega"]), exp(p[["log_sigma"]]))
  report("TMB", packageVersion("TMB"), timed, 2 * timed$fit$objective)
}

try_nlme()
if (has_lme4) try_lme4()
if (has_tmb) try_tmb()
