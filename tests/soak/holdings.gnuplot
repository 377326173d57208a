# What the clients of a soak hold over time: gnuplot -e "figures='FILE.dat'; output='FILE.svg'"
set terminal svg size 900,900 dynamic background rgb 'white'
set output output
set datafile missing '0' # a client that had just ended
set multiplot layout 3,1
set key outside
set grid
set yrange [0:*]
set xrange [0:*]
set ylabel 'memory, MB'
plot for [i=0:3] figures using 1:(column(2 + 3 * i)) with lines title sprintf('client %d', i)
set ylabel 'handles'
plot for [i=0:3] figures using 1:(column(3 + 3 * i)) with lines title sprintf('client %d', i)
set ylabel 'threads'
set xlabel 'minutes'
plot for [i=0:3] figures using 1:(column(4 + 3 * i)) with lines title sprintf('client %d', i)
unset multiplot
