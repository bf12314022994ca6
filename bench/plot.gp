# plot.gp - the plots beside RESULTS.md, from the tables in the current folder.
set terminal svg size 900,420 font "sans,13" background "#ffffff"
set datafile separator "|"
array names[6] = ["raw TCP", "bare calls", "library", "C++ layer", "libzmq", "nng"]
array colours[6] = ["#999999", "#555555", "#d1495b", "#edae49", "#00798c", "#7fb685"]
row(i, tables) = sprintf("< grep -h '^| %s |' %s", names[i], tables) # one line of each table
set style data histograms
set style fill solid 0.85 noborder
set boxwidth 0.9
set grid ytics lc "#dddddd"
set key at screen 0.5,0.06 center center horizontal Left reverse samplen 2
set bmargin 5
set xrange [-0.6:5.6]
set xtics scale 0 ("5 B\none core" 0, "4 KiB\none core" 1, "60 KiB\none core" 2, \
    "5 B\ntwo cores" 3, "4 KiB\ntwo cores" 4, "60 KiB\ntwo cores" 5)

set output "roundtrip.svg"
set title "Round trip, median, as a multiple of raw TCP's (less is better)"
set yrange [0:*]
plot for [i=1:6] row(i, "roundtrip.?") using 3 title names[i] lc rgb colours[i]

set output "oneway.svg"
set title "One way, messages a second, as a multiple of raw TCP's (more is better)"
set logscale y
set yrange [0.01:*]
plot for [i=1:6] row(i, "oneway.?") using 3 title names[i] lc rgb colours[i]

set output "growth.svg"
set title "A server of many clients, one core (less is better)"
set logscale x
set xrange [12:12500]
set yrange [1:*]
set xtics scale 1 (15, 1000, 10000)
set xlabel "clients"
set ylabel "µs"
array kinds[3] = ["login", "round trip", "logout"]
plot for [i=1:3] "< grep '^| library' growth" using 3:(column(i + 3)) with linespoints lw 2 pt 7 \
    lc rgb colours[i + 2] title kinds[i]
