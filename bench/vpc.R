# SPDX-License-Identifier: Apache-2.0
#
# The percentiles of a visual predictive check, once more from the simulated data, with R's quantile:
#   varda simulate DIR -n 1000 --output simulated.csv
#   varda vpc DIR -n 1000 --output vpc.csv
#   Rscript bench/vpc.R simulated.csv vpc.csv DATA.csv
# simulate and vpc draw the same values. DATA.csv: the data of the fit, one endpoint, nothing
# censored. Prints the largest difference, relative or to 0.001, and fails above 1e-12.
arguments <- commandArgs(trailingOnly = TRUE)
simulated <- read.csv(arguments[1], na.strings = c("", "NA"))
checked <- read.csv(arguments[2], na.strings = c("", "NA"))
data <- read.csv(arguments[3], na.strings = c(".", ""))
simulated <- simulated[simulated$EVID == 0, ]
data <- data[data$EVID == 0, ]

edges <- sort(unique(c(checked$FROM, checked$TO)))
bin_of <- function(time) findInterval(time, edges, rightmost.closed = TRUE)
probabilities <- c(P05 = 0.05, P50 = 0.5, P95 = 0.95)
worst <- 0
compare <- function(found, wanted) {
  worst <<- max(worst, abs(found - wanted) / pmax(abs(wanted), 1e-3))
}
for (b in seq_len(length(edges) - 1)) {
  for (name in names(probabilities)) {
    row <- checked[checked$FROM == edges[b] & checked$STATISTIC == name, ]
    of <- function(values) quantile(values, probabilities[[name]], names = FALSE, type = 7)
    compare(row$OBSERVED, of(data$DV[bin_of(data$TIME) == b]))
    inside <- simulated[bin_of(simulated$TIME) == b, ]
    by_replicate <- tapply(inside$DV, inside$REP, of)
    wanted <- quantile(by_replicate, c(0.025, 0.5, 0.975), names = FALSE, type = 7)
    compare(c(row$LOWER, row$MEDIAN, row$UPPER), wanted)
  }
}
cat(length(edges) - 1, "bins, largest difference", worst, "\n")
quit(status = if (worst < 1e-12) 0 else 1)
