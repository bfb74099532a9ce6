# Draws docs/growth.svg: gnuplot bench/growth.gp, in the top folder. The figures are those of docs/performance.md.
set terminal svg size 640,360 font "sans-serif,12" background "white"
set output "docs/growth.svg"
set logscale x
set xrange [7000:1400000]
set yrange [0:65]
set xlabel "files (20 per folder)"
set ylabel "microseconds per file"
set format x "%.0f"
set key left top
set grid y
$growth << EOD
10000 37.39 29.14 14.33 8.73
100000 43.52 35.11 15.30 8.74
1000000 56.29 44.45 16.56 9.18
EOD
plot $growth using 1:2 with linespoints lw 2 pt 7 lc rgb "#1f5fa8" title "first walk, daemon", \
     $growth using 1:3 with linespoints lw 2 dt 2 pt 6 lc rgb "#1f5fa8" title "first walk, prepared floor", \
     $growth using 1:4 with linespoints lw 2 pt 7 lc rgb "#b5541c" title "re-walk, daemon", \
     $growth using 1:5 with linespoints lw 2 dt 2 pt 6 lc rgb "#b5541c" title "re-walk, prepared floor"
