# What the library takes in units of its limit: the median of all blocks, with their quartiles.
set terminal svg size 900, 700 font 'sans,12' background 'white'
set output output
set logscale x 2
set xrange [0.5:*]
set yrange [*:*] reverse
set grid x
set key off
set xlabel 'time of the library / time of its limit'
set arrow from 1, graph 0 to 1, graph 1 nohead lc rgb 'gray'
plot figures using 3:0:2:4:ytic(1) with xerrorbars pt 7 ps 0.7 lc rgb '#205080'
