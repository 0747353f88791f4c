# Draws scans against their floor as SVG, from the file that zanbench --plot-data wrote:
#
#   gnuplot -e "data='FILE'" bench/plot.gnuplot >FILE.svg
#
# A dot is the median of a run's rounds, half of them lie within its bar, and a dashed line is the
# target of the line of its colour.
set terminal svg size 760,440 font "sans-serif,13" background "white" noenhanced
# All medians and targets are within the picture; a bar that a busy machine stretched may leave it.
stats data using 2 nooutput
set yrange [0.95 : STATS_max > 1.25 ? STATS_max + 0.05 : 1.3]
set format y "%.2f"
set logscale x
set xrange [700:300000]
set xtics ("1,000" 1e3, "10,000" 1e4, "60,000" 6e4, "200,000" 2e5)
set xlabel "entries in the table"
set ylabel "time of a scan / time of reading the table"
set border 3 linecolor "#555555"
set tics nomirror out scale 0.5
set grid ytics linecolor "#dddddd" linetype 1
set key outside below Left reverse samplen 2 maxcols 1
set bars 0.6
set colorsequence podo

# Lines side by side, so that their bars do not hide each other.
beside(x, i) = x * 1.06 ** (i - 1)

plot 1 with lines linecolor "#555555" notitle, \
  for [i = 1 : STATS_blocks] data index i - 1 using 1:5 with lines linetype i + 1 dashtype 2 linewidth 1.5 notitle, \
  for [i = 1 : STATS_blocks] data index i - 1 using (beside($1, i)):2:3:4 \
    with yerrorlines linetype i + 1 linewidth 1.5 pointtype 7 pointsize 0.6 title columnheader(1)
