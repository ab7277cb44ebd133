*> A sequential file of one record length: modes, rewriting, the end, extending.
identification division.
program-id. sequential-file.
environment division.
input-output section.
file-control.
    select f assign "seq.dat" organization sequential status st.
    select v assign "var.dat" organization sequential status st.
    select o assign "opt.dat" organization sequential status st.
    select optional p assign "opt.dat" organization sequential status st.
    select blank-name assign name-item organization sequential status st.
    select no-place assign "nowhere/file" organization sequential status st.
data division.
file section.
fd f.
01 r pic x(10).
fd v record varying from 3 to 12 depending on len.
01 vr.
    05 vc pic x occurs 3 to 12 depending on len.
fd o.
01 orec pic x(10).
fd p.
01 prec pic x(10).
fd blank-name.
01 brec pic x(10).
fd no-place.
01 nrec pic x(10).
working-storage section.
01 st pic xx.
01 len pic 99.
01 name-item pic x(20) value spaces.
procedure division.
    open input f call "expect" using "open input, missing" "35" st
    open i-o f call "expect" using "open i-o, missing" "35" st
    open extend f call "expect" using "open extend, missing" "35" st
    read f call "expect" using "read, closed" "47" st
    write r call "expect" using "write, closed" "48" st
    rewrite r call "expect" using "rewrite, closed" "49" st
    open output f call "expect" using "open output" "00" st
    move "one" to r write r call "expect" using "write" "00" st
    move "two" to r write r call "expect" using "write" "00" st
    read f call "expect" using "read, output" "47" st
    rewrite r call "expect" using "rewrite, output" "49" st
    open output f call "expect" using "open, open" "41" st
    close f call "expect" using "close" "00" st
    close f call "expect" using "close, closed" "42" st
    open i-o f call "expect" using "open i-o" "00" st
    write r call "expect" using "write, i-o" "48" st
    rewrite r call "expect" using "rewrite before read" "43" st
    read f call "expect" using "read" "00" st
    if r not = "one" display "not as expected: first record " r move 1 to return-code end-if
    move "ONE" to r rewrite r call "expect" using "rewrite" "00" st
    rewrite r call "expect" using "rewrite again" "43" st
    read f call "expect" using "read" "00" st
    read f call "expect" using "read at end" "10" st
    rewrite r call "expect" using "rewrite at end" "43" st
    read f call "expect" using "read behind the end" "46" st
    close f
    open extend f call "expect" using "open extend" "00" st
    move "three" to r write r call "expect" using "write, extend" "00" st
    read f call "expect" using "read, extend" "47" st
    close f
    open input f
    read f read f read f call "expect" using "read the last" "00" st
    if r not = "three" display "not as expected: last record " r move 1 to return-code end-if
    close f

    open output v
    move all "x" to vr
    move 2 to len write vr call "expect" using "write 2 of 3 to 12" "44" st
    move 12 to len move all "a" to vr
    move 3 to len write vr call "expect" using "write 3" "00" st
    move 7 to len write vr call "expect" using "write 7" "00" st
    move 12 to len write vr call "expect" using "write 12" "00" st
    move 13 to len write vr call "expect" using "write 13 of 3 to 12" "44" st
    close v
    open i-o v
    read v call "expect" using "read 3" "00" st
    if len not = 3 display "not as expected: length " len move 1 to return-code end-if
    read v call "expect" using "read 7" "00" st
    if len not = 7 display "not as expected: length " len move 1 to return-code end-if
    move 9 to len rewrite vr call "expect" using "rewrite with another length" "44" st
    read v call "expect" using "read 12" "00" st
    if len not = 12 display "not as expected: length " len move 1 to return-code end-if
    rewrite vr call "expect" using "rewrite with the same length" "00" st
    close v

    open input p call "expect" using "open input, optional and missing" "05" st
    read p call "expect" using "read, optional and missing" "10" st
    read p call "expect" using "read, again" "46" st
    close p call "expect" using "close, optional and missing" "00" st
    open i-o p call "expect" using "open i-o, optional and missing" "05" st
    read p call "expect" using "read an empty file" "10" st
    close p call "expect" using "close" "00" st
    delete file p call "expect" using "delete file" "00" st
    open extend p call "expect" using "open extend, optional and missing" "05" st
    write prec from "first" close p
    open extend p call "expect" using "open extend, optional and there" "00" st
    close p
    open output no-place call "expect" using "open output, no directory" "30" st
    open output blank-name call "expect" using "open, no name" "31" st
    stop run.
end program sequential-file.
