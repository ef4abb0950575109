# SPDX-License-Identifier: Apache-2.0
#
# The data of this folder: 100 subjects, seizures counted over each of 12 weeks, half of the subjects
# on a drug, and who leaves the trial when. Subjects with many seizures leave earlier. In the folder:
#
#   Rscript simulate.R
set.seed(7, kind = "Mersenne-Twister", normal.kind = "Inversion", sample.kind = "Rejection")
subjects <- 100
base <- 4 * exp(rnorm(subjects, 0, sqrt(0.5)))       # seizures a week
effect <- 0.6                                        # fall of the logarithm on the drug
drug <- rep(0:1, length.out = subjects)
mean <- base * exp(-effect * drug)
leaves <- rexp(subjects, 0.02 * mean^0.7)            # hazard a week
rows <- do.call(rbind, lapply(seq_len(subjects), function(i) {
  end <- min(leaves[i], 12)
  weeks <- seq_len(floor(end))
  counts <- rnbinom(length(weeks), size = 1 / 0.3, mu = mean[i])
  rbind(if (length(weeks)) data.frame(ID = i, TIME = weeks, DV = counts, DVID = "seizures"),
        data.frame(ID = i, TIME = round(end, 2), DV = as.integer(leaves[i] < 12), DVID = "exit"))
}))
rows$DRUG <- drug[rows$ID]
write.csv(rows, "seizures.csv", row.names = FALSE, quote = FALSE)
