# Draws a run of the demo as SVG, from the file that zandemo --plot-data wrote:
#
#   gnuplot -e "data='FILE'" demo/plot.gnuplot >FILE.svg
#
# Above the kernel's table, below the mobile link, all of it as it was observed in that run.
set terminal svg size 880,720 font "sans-serif,13" background "white" noenhanced
set border 3 linecolor "#555555"
set tics nomirror out scale 0.5
set lmargin at screen 0.13
set rmargin at screen 0.97
set key at screen 0.97, screen 0.975 right horizontal samplen 2 width -2 maxrows 1
colourA = "#1f77b4"; colourB = "#e07b1a"; colourFlush = "#2a9d4a"; colourTimer = "#7b4ab5"
colourEvent = "#999999"

# Events that follow each other closely have their labels on two levels.
level(top, step) = top - (int($0) % 2) * step
# How many, of the log's line "... flush over: 24 deleted, ...".
deleted(line) = line[strstrt(line, "over: ") + 6 : strstrt(line, " deleted") - 1]

# Room for the last event's label.
stats data index "hotspot table" using 1 name "HOTSPOT" nooutput
stats data index "link state" using 1 name "LINK" nooutput
stats data index "link state" using 8 name "TIMER" nooutput

set multiplot

set xrange [floor(HOTSPOT_min) : HOTSPOT_max + 0.25 * (HOTSPOT_max - HOTSPOT_min)]
set tmargin at screen 0.92
set bmargin at screen 0.56
set label 1 "Hotspot: the kernel's conntrack table" at graph 0, graph 1.12 left font ",15"
set ylabel "TCP and UDP entries"
set xlabel "seconds since client A left" offset 0,0.4
set yrange [-4:34]
set ytics 0,6,24
plot data index "hotspot events" using 1:(-4):(0):(38) with vectors nohead dashtype 2 linecolor rgb colourEvent notitle, \
  data index "hotspot table" using 1:3 with steps linewidth 2.5 linecolor rgb colourB title "client B", \
  data index "hotspot table" using 1:2 with steps linewidth 2.5 linecolor rgb colourA title "client A", \
  data index "hotspot flushes" using 1:(-2) with points pointtype 9 pointsize 1.1 linecolor rgb colourFlush title "flush, deletions", \
  data index "hotspot flushes" using 1:(-2):(deleted(strcol(2))) with labels left offset 0.8,0 textcolor rgb colourFlush notitle, \
  data index "hotspot events" using 1:(level(32, 3)):2 with labels left offset 0.4,0 notitle

set key at screen 0.97, screen 0.475
set tmargin at screen 0.42
set bmargin at screen 0.24
set label 1 "Mobile link: the kernel's idle timer" at graph 0, graph 1.24 left font ",15"
set ylabel "seconds left"
unset xlabel
set xtics format ""
set xrange [0 : LINK_max * 1.05]
top = ceil(TIMER_max * 1.6)
set yrange [0:top]
set ytics 0, TIMER_max > 20 ? 20 : 5, TIMER_max
plot data index "link events" using 1:(0):(0):(top) with vectors nohead dashtype 2 linecolor rgb colourEvent notitle, \
  data index "link state" using 1:8 with steps linewidth 2.5 linecolor rgb colourTimer title "idle timer", \
  data index "link reports" using 1:(top * 0.06) with points pointtype 9 pointsize 1.1 linecolor rgb colourFlush title "reported idle", \
  data index "link events" using 1:(level(top * 0.9, top * 0.14)):2 with labels left offset 0.4,0 notitle

set tmargin at screen 0.235
set bmargin at screen 0.09
unset label 1
unset key
unset ylabel
set xlabel "seconds since the link was first looked at" offset 0,0.4
set xtics format "%g"
set yrange [0:6]
set ytics ("frames" 5.3, "dormant" 4.3, "filters" 3.3, "listen filters" 2.3, "tethering" 1.3)
frames = 0
sent(now) = (before = frames, frames = now, now > before ? 5.3 : NaN)
bar(state, y) = state > 0 ? y : NaN
plot data index "link events" using 1:(0):(0):(6) with vectors nohead dashtype 2 linecolor rgb colourEvent notitle, \
  data index "link state" using 1:(sent($7)) with points pointtype 7 pointsize 0.7 linecolor rgb "#555555", \
  data index "link state" using 1:(bar($3, 4.3)) with lines linewidth 9 linecolor rgb "#bbbbbb", \
  data index "link state" using 1:(bar($4, 3.3)) with lines linewidth 9 linecolor rgb colourA, \
  data index "link state" using 1:(bar($5, 2.3)) with lines linewidth 9 linecolor rgb colourFlush, \
  data index "link state" using 1:(bar($6, 1.3)) with lines linewidth 9 linecolor rgb colourB
unset multiplot
