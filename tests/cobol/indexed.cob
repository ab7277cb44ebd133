*> Indexed files: alternate keys with and without duplicates, a split key, START, suppressed values, locking the SELECT.
identification division.
program-id. indexed-file.
environment division.
input-output section.
file-control.
    select f assign "idx.dat" organization indexed access dynamic record key k1
        alternate record key k2 with duplicates
        alternate record key k3 = a b
        status st.
    select s assign "idxs.dat" organization indexed access sequential record key sk
        alternate record key sa with duplicates status st.
    select g assign "idxg.dat" organization indexed access dynamic record key gk
        alternate record key ga with duplicates status st.
    select w assign "idxw.dat" organization indexed access dynamic record key wk
        alternate record key wa suppress when all "*"
        alternate record key wd with duplicates status st.
    select l assign name-item organization sequential status st.
data division.
file section.
fd f.
01 r.
    05 k1 pic x(4).
    05 k2 pic x(2).
    05 a pic x(2).
    05 filler pic x.
    05 b pic x(2).
fd s.
01 sr.
    05 sk pic x.
    05 sa pic x.
fd g.
01 gr.
    05 gk.
        10 part pic xx.
        10 rest pic xx.
    05 ga pic xx.
fd w.
01 wr.
    05 wk pic x.
    05 wa.
        10 wa1 pic x.
        10 pic x.
    05 wd pic x.
fd l.
01 lr pic x(4).
working-storage section.
01 st pic xx.
01 name-item pic x(20).
01 i pic 99.
01 steps pic 99.
procedure division.
    read f call "expect" using "read, closed" "47" st
    start f key = k1 call "expect" using "start, closed" "47" st
    delete f call "expect" using "delete, closed" "49" st
    open output f
    move "0001aacc.dd" to r write r call "expect" using "write" "00" st
    move "0002aacc.ee" to r write r call "expect" using "write, k2 equal" "02" st
    move "0001bbxx.yy" to r write r call "expect" using "write, k1 equal" "22" st
    move "0003bbcc.dd" to r write r call "expect" using "write, k3 equal" "22" st
    move "0003bbzz.zz" to r write r call "expect" using "write" "00" st
    close f open i-o f
    move "aa" to k2 read f key k2 call "expect" using "read k2, the first of two" "00>02" st
    if k1 not = "0001" display "not as expected: first " r move 1 to return-code end-if
    read f next call "expect" using "next, the second" "00" st
    if k1 not = "0002" display "not as expected: second " r move 1 to return-code end-if
    read f next read f next call "expect" using "next at end" "10" st
    read f next call "expect" using "next behind the end" "46" st
    read f previous call "expect" using "previous after the end" "00" st
    if k1 not = "0003" display "not as expected: last " r move 1 to return-code end-if
    move "zz" to a move "zz" to b read f key k3 call "expect" using "read by the split key" "00" st
    move "0003aazz.zz" to r rewrite r call "expect" using "rewrite to a known k2" "02" st
    move "0003aacc.ee" to r rewrite r call "expect" using "rewrite to a taken k3" "22" st
    move "0002" to k1 delete f call "expect" using "delete" "00" st
    delete f call "expect" using "delete again" "23" st
    move "0009" to k1 rewrite r call "expect" using "rewrite what is not there" "23" st
    close f
    open input f rewrite r call "expect" using "rewrite, input" "49" st
    delete f call "expect" using "delete, input" "49" st
    write r call "expect" using "write, input" "48" st
    close f

    open output s
    move "b1" to sr write sr call "expect" using "write b" "00" st
    write sr call "expect" using "write b again" "21" st
    move "a1" to sr write sr call "expect" using "write a" "21" st
    move "c2" to sr write sr call "expect" using "write c" "00" st
    close s open i-o s
    read s move "2" to sa rewrite sr call "expect" using "rewrite, known alternate" "02" st
    rewrite sr call "expect" using "rewrite again" "43" st
    delete s call "expect" using "delete before read" "43" st
    read s move "x" to sk rewrite sr call "expect" using "rewrite, another prime key" "00>21" st
    close s open i-o s
    read s delete s call "expect" using "delete" "00" st
    close s
    open extend s
    move "a9" to sr write sr call "expect" using "extend with a lower key" "00>21" st
    close s

    open output g
    move "AB01xx" to gr write gr move "AB02xx" to gr write gr
    move "AC01yy" to gr write gr move "AD01zz" to gr write gr
    close g open i-o g
    move "AC99" to gk start g key = gk call "expect" using "start = AC99" "23" st
    read g next call "expect" using "next after a failed start" "46" st
    move "AC" to part
    start g key = part call "expect" using "start = part AC" "00" st read g next perform at-ac01
    move "AB" to part
    start g key > part call "expect" using "start > part AB" "00" st read g next perform at-ac01
    move "AC" to part
    start g key < part call "expect" using "start < part AC" "00" st read g next
    if gk not = "AB02" display "not as expected: < AC gave " gk move 1 to return-code end-if
    move "AC" to part
    start g key <= part call "expect" using "start <= part AC" "00" st read g next perform at-ac01
    move "AB0x" to gk start g key = gk with size 3 call "expect" using "start, size 3" "00" st
    move "AE00" to gk start g key >= gk call "expect" using "start >= AE00" "23" st
    move "AA00" to gk start g key < gk call "expect" using "start < AA00" "23" st
    move "ZZ00" to gk start g key < gk call "expect" using "start < ZZ00" "00" st
    read g previous
    if gk not = "AD01" display "not as expected: < ZZ00 gave " gk move 1 to return-code end-if
    read g previous perform at-ac01
    read g next
    if gk not = "AD01" display "not as expected: next gave " gk move 1 to return-code end-if
    move "xx" to ga start g key > ga call "expect" using "start > xx by the alternate" "00" st
    read g next perform at-ac01
    move "xx" to ga start g key = ga call "expect" using "start = xx by the alternate" "00" st
    read g next
    if gk not = "AB01" display "not as expected: = xx gave " gk move 1 to return-code end-if
    move "xx" to ga start g key <= ga call "expect" using "start <= xx by the alternate" "00" st
    read g next
    if gk not = "AB02" display "not as expected: <= xx gave " gk move 1 to return-code end-if
    move 0 to i start g key = gk with size i call "expect" using "start, size 0" "23" st
    move 5 to i start g key = gk with size i call "expect" using "start, size above the key's" "23" st
    close g

    open output w
    move "1**1" to wr write wr call "expect" using "write a suppressed value" "00" st
    move "2**2" to wr write wr call "expect" using "write it again" "00" st
    move "3bb3" to wr write wr call "expect" using "write bb" "00" st
    move "4bb4" to wr write wr call "expect" using "write bb again" "22" st
    move "4aa4" to wr write wr call "expect" using "write aa" "00" st
    move "5**1" to wr write wr call "expect" using "write a suppressed value, and a duplicate" "02" st
    move "6*a6" to wr write wr call "expect" using "write a value that begins so" "00" st
    close w open i-o w
    move "*" to wa1 start w key = wa1 call "expect" using "start = with a leading part" "00" st
    read w next if wa not = "*a" display "not as expected: " wr move 1 to return-code end-if
    move spaces to wa start w key >= wa call "expect" using "start >= blank" "00" st
    read w next if wa not = "*a" display "not as expected: " wr move 1 to return-code end-if
    read w next if wa not = "aa" display "not as expected: " wr move 1 to return-code end-if
    read w next if wa not = "bb" display "not as expected: " wr move 1 to return-code end-if
    read w next call "expect" using "next at end" "10" st
    move "**" to wa read w key wa call "expect" using "read the suppressed value" "23" st
    move "1bb1" to wr rewrite wr call "expect" using "rewrite ** to bb" "22" st
    move "1cc1" to wr rewrite wr call "expect" using "rewrite ** to cc" "00" st
    move "1**1" to wr rewrite wr call "expect" using "rewrite cc to **" "00" st
    close w

    *> What is looked up for a suppressed key does not move the place of READ NEXT.
    open output w
    perform varying i from 1 by 1 until i > 6
        move i(2:1) to wk move i to wa write wr
    end-perform
    close w open i-o w
    move 0 to steps
    perform until st(1:1) not = "0" or steps > 15
        read w next
        if st(1:1) = "0"
            add 1 to steps
            compute i = 50 + steps move i to wa
            rewrite wr call "expect" using "rewrite in a walk" "00" st
        end-if
    end-perform
    if steps not = 6 display "not as expected: the walk met " steps " records" end-if
    close w

    move "locked.dat" to name-item
    open output l write lr from "x" close l with lock call "expect" using "close with lock" "00" st
    open input l call "expect" using "open after close with lock" "38" st
    stop run.
at-ac01.
    if gk not = "AC01" display "not as expected: " gk ", should be AC01" move 1 to return-code end-if.
end program indexed-file.
