# Draws scans against their floor as SVG, from the file that zanbench --plot-data wrote:
#
#   gnuplot -e "data='FILE'" bench/plot.gnuplot >FILE.svg
#
# A dot is the median of a run's rounds; half of them lie within its bar.
one_percent = '"client owns 1 %" "owns 1 %, text within ten others" "owns 1 %, no IPv6 address known" "owns 1 %, host''s log"'
everything = '"client owns all" "owns all, host''s log"'

set terminal svg size 860,440 font "sans-serif,13" background "white" noenhanced
# All medians and targets are within the picture; a bar that a busy machine stretched may leave it.
stats data using 2 nooutput
lowest = floor(20 * STATS_min - 1) / 20.0
highest = ceil(20 * STATS_max + 1) / 20.0
set yrange [lowest < 0.95 ? lowest : 0.95 : highest > 1.3 ? highest : 1.3]
set format y "%.2f"
set logscale x
set xrange [700:300000]
set xtics ("1,000" 1e3, "10,000" 1e4, "60,000" 6e4, "200,000" 2e5)
set xlabel "entries in the table"
set border 3 linecolor "#555555"
set tics nomirror out scale 0.5
set grid ytics linecolor "#dddddd" linetype 1
set key below left Left reverse maxcols 1 samplen 2
set bars 0.6
set linetype 1 linecolor "#0072b2" pointtype 7 pointsize 0.6 linewidth 1.5
set linetype 2 linecolor "#e69f00" pointtype 7 pointsize 0.6 linewidth 1.5
set linetype 3 linecolor "#009e73" pointtype 7 pointsize 0.6 linewidth 1.5
set linetype 4 linecolor "#cc79a7" pointtype 7 pointsize 0.6 linewidth 1.5

# Lines side by side, so that their bars do not hide each other.
beside(x, i) = x * 1.06 ** (i - 1)

set multiplot layout 1,2
set bmargin 9
set ylabel "time of a scan / time of reading the table"
set title "The client owns 1 % of the entries"
plot 1 with lines linecolor "#555555" notitle, \
  1.05 with lines linecolor "#d00000" dashtype 2 title "target of the blue line, 1.05", \
  for [i = 1 : words(one_percent)] data index word(one_percent, i) \
    using (beside($1, i)):2:3:4 with yerrorlines linetype i title word(one_percent, i)
unset ylabel
set title "The client owns all entries"
plot 1 with lines linecolor "#555555" notitle, \
  1.25 with lines linecolor "#d00000" dashtype 2 title "target of the blue line, 1.25", \
  for [i = 1 : words(everything)] data index word(everything, i) \
    using (beside($1, i)):2:3:4 with yerrorlines linetype i title word(everything, i)
unset multiplot
