*> Relative files under dynamic and sequential access.
identification division.
program-id. relative-file.
environment division.
input-output section.
file-control.
    select f assign "rel.dat" organization relative access dynamic relative key n status st.
    select s assign "rels.dat" organization relative access sequential relative key n status st.
    select d assign "rel10.dat" organization relative access sequential relative key digit status st.
    select d2 assign "rel10.dat" organization relative access sequential status st.
data division.
file section.
fd f.
01 r pic x(10).
fd s.
01 sr pic x(10).
fd d.
01 dr pic x(10).
fd d2.
01 d2r pic x(10).
working-storage section.
01 st pic xx.
01 n pic 9(6).
01 digit pic 9.
01 i pic 99.
procedure division.
    open output f call "expect" using "open output" "00" st
    move "three" to r move 3 to n write r call "expect" using "write 3" "00" st
    move "one" to r move 1 to n write r call "expect" using "write 1" "00" st
    write r call "expect" using "write 1 again" "22" st
    move 0 to n write r call "expect" using "write 0" "24" st
    read f next call "expect" using "read, output" "47" st
    start f key = n call "expect" using "start, output" "47" st
    close f
    open i-o f
    read f next call "expect" using "next" "00" st
    if n not = 1 or r not = "one" display "not as expected: first " n " " r move 1 to return-code end-if
    read f next call "expect" using "next" "00" st
    if n not = 3 display "not as expected: second " n move 1 to return-code end-if
    read f next call "expect" using "next at end" "10" st
    read f next call "expect" using "next behind the end" "46" st
    move 2 to n read f call "expect" using "read 2" "23" st
    read f next call "expect" using "next after a failed read" "46" st
    move 1 to n start f key > n call "expect" using "start > 1" "00" st
    read f previous call "expect" using "previous gives 3" "00>00" st
    if n not = 3 display "not as expected: previous " n move 1 to return-code end-if
    move 3 to n start f key > n call "expect" using "start > 3" "23" st
    read f next call "expect" using "next after a failed start" "46" st
    move 200 to n delete f call "expect" using "delete 200" "23" st
    move 200 to n rewrite r call "expect" using "rewrite 200" "23" st
    move 2 to n rewrite r call "expect" using "rewrite a gap" "00>23" st
    close f
    open extend f call "expect" using "open extend" "00" st
    move 9 to n write r call "expect" using "write, extend and dynamic" "48" st
    close f

    open output s
    move 77 to n write sr from "a" call "expect" using "write in order" "00" st
    if n not = 1 display "not as expected: first number " n move 1 to return-code end-if
    write sr from "b" write sr from "c" write sr from "d" write sr from "e"
    call "expect" using "write in order" "00" st
    if n not = 5 display "not as expected: last number " n move 1 to return-code end-if
    close s
    open i-o s
    write sr call "expect" using "write, i-o and sequential" "48" st
    delete s call "expect" using "delete before read" "43" st
    read s call "expect" using "read" "00" st
    move 4 to n move "A" to sr
    rewrite sr call "expect" using "rewrite what was read" "00" st
    rewrite sr call "expect" using "rewrite again" "43" st
    read s delete s call "expect" using "delete what was read" "00" st
    delete s call "expect" using "delete again" "43" st
    close s
    open input s read s
    if sr not = "A" display "not as expected: rewritten record " sr move 1 to return-code end-if
    read s
    if n not = 3 display "not as expected: number behind a gap " n move 1 to return-code end-if
    close s
    open extend s write sr from "f" call "expect" using "write, extend" "00" st
    if n not = 6 display "not as expected: number at the end " n move 1 to return-code end-if
    close s

    open output f
    move 3 to n write r move 5 to n write r move 9 to n write r
    close f open input f
    move 0 to n start f key > n call "expect" using "start > 0" "00" st read f next perform at-3
    move 1 to n start f key >= n call "expect" using "start >= 1" "00" st read f next perform at-3
    move 3 to n start f key > n call "expect" using "start > 3" "00" st read f next
    if n not = 5 display "not as expected: > 3 gave " n move 1 to return-code end-if
    move 4 to n start f key = n call "expect" using "start = 4" "23" st
    move 9 to n start f key > n call "expect" using "start > 9" "23" st
    move 20 to n start f key <= n call "expect" using "start <= 20" "00" st read f next perform at-9
    move 20 to n start f key < n call "expect" using "start < 20" "00" st read f next perform at-9
    move 3 to n start f key < n call "expect" using "start < 3" "23" st
    move 0 to n start f key <= n call "expect" using "start <= 0" "23" st
    start f first call "expect" using "start first" "00" st read f next perform at-3
    start f last call "expect" using "start last" "00" st read f next perform at-9
    close f

    open output d
    perform varying i from 1 by 1 until i > 9 write dr from "x" end-perform
    call "expect" using "write the ninth" "00" st
    close d
    open extend d2 write d2r from "y" close d2
    open input d
    perform 9 times read d end-perform
    read d call "expect" using "read the tenth, its number has one digit" "14" st
    close d
    stop run.
at-3.
    if n not = 3 display "not as expected: " n ", should be 3" move 1 to return-code end-if.
at-9.
    if n not = 9 display "not as expected: " n ", should be 9" move 1 to return-code end-if.
end program relative-file.
