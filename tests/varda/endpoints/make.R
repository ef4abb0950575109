# SPDX-License-Identifier: Apache-2.0
#
# The data sets of this folder, from the truths that stand beside them. Run in the folder:
#
#   Rscript make.R
set.seed(20261122, kind = "Mersenne-Twister", normal.kind = "Inversion", sample.kind = "Rejection")

rows <- function(subjects, times) {
  data.frame(ID = rep(seq_len(subjects), each = length(times)), TIME = rep(times, subjects))
}
save <- function(data, file) write.csv(data, file, row.names = FALSE, quote = FALSE)

# log mean = 1 - 0.5 TRT + eta, variance 0.4
d <- rows(60, 1:6)
d$TRT <- d$ID %% 2
eta <- rnorm(60, 0, sqrt(0.4))
d$DV <- rpois(nrow(d), exp(1 - 0.5 * d$TRT + eta[d$ID]))
save(d[c("ID", "TIME", "DV", "TRT")], "poisson.csv")

# logit P(1) = -1 + 0.3 TIME + eta, variance 1
d <- rows(80, 0:7)
eta <- rnorm(80, 0, 1)
d$DV <- rbinom(nrow(d), 1, plogis(-1 + 0.3 * d$TIME + eta[d$ID]))
save(d[c("ID", "TIME", "DV")], "binary.csv")

# logit P(DV <= k) = threshold - (TRT + eta), thresholds -1, 0.5, 2, variance 1
d <- rows(80, 1:6)
d$TRT <- d$ID %% 2
eta <- rnorm(80, 0, 1)
x <- d$TRT + eta[d$ID] + rlogis(nrow(d))
d$DV <- c(1, 2, 4, 8)[1 + (x > -1) + (x > 0.5) + (x > 2)]
save(d[c("ID", "TIME", "DV", "TRT")], "ordinal.csv")

# Mean 4 exp(eta) with variance 0.3, dispersion 0.5; a share of 0.2 are zeros that are no counts.
d <- rows(100, 1:6)
eta <- rnorm(100, 0, sqrt(0.3))
d$DV <- rnbinom(nrow(d), size = 2, mu = 4 * exp(eta[d$ID])) * rbinom(nrow(d), 1, 0.8)
save(d[c("ID", "TIME", "DV")], "counts.csv")

# Weibull with shape 1.5 and scale 10 exp(0.5 TRT + eta), variance 0.2. The first 50 subjects are
# seen until 12 at the longest, the next 50 at visits 4 apart, the next 20 only once, at 8.
n <- 120
eta <- rnorm(n, 0, sqrt(0.2))
trt <- seq_len(n) %% 2
time <- rweibull(n, 1.5, 10 * exp(0.5 * trt + eta))
d <- do.call(rbind, lapply(seq_len(n), function(i) {
  row <- function(at, dv, cens = 0, limit = ".")
    data.frame(ID = i, TIME = at, DV = dv, CENS = cens, LIMIT = limit, TRT = trt[i])
  if (i <= 50) return(row(round(min(time[i], 12), 3), as.integer(time[i] < 12)))
  if (i > 100) return(if (time[i] < 8) row(8, 1, 1) else row(8, 0))
  if (time[i] >= 12) return(row(12, 0))
  visit <- 4 * ceiling(time[i] / 4)
  row(visit, 1, 1, if (visit > 4) visit - 4 else ".")
}))
save(d, "events.csv")

# Concentrations 10 / V exp(-k t), V = 2, k = 0.2 exp(eta), variance 0.2, with an error of 20 %, and
# counts of two hours with mean 3 exp(-0.3 conc + kappa), variance 0.2.
times <- c(0.5, 2, 4, 8, 12)
d <- do.call(rbind, lapply(1:40, function(i) {
  k <- 0.2 * exp(rnorm(1, 0, sqrt(0.2)))
  conc <- 5 * exp(-k * times)
  mean <- 3 * exp(-0.3 * conc + rnorm(1, 0, sqrt(0.2)))
  seen <- rbind(data.frame(TIME = times, DV = signif(conc * (1 + 0.2 * rnorm(5)), 4), DVID = 1),
                data.frame(TIME = times, DV = rpois(5, mean), DVID = 2))
  seen <- seen[order(seen$TIME, seen$DVID), ]
  rbind(data.frame(ID = i, TIME = 0, AMT = 10, DV = ".", DVID = "."),
        data.frame(ID = i, TIME = seen$TIME, AMT = ".", DV = seen$DV, DVID = seen$DVID))
}))
save(d, "joint.csv")
