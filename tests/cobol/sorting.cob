*> SORT and MERGE of files that the driver keeps, a line-sequential file beside them, and a file for a printer.
identification division.
program-id. sorting.
environment division.
input-output section.
file-control.
    select i assign "in.dat" organization indexed access dynamic record key ik status st.
    select r assign "out.dat" organization relative access sequential status st.
    select t assign "out.txt" organization line sequential status st.
    select m assign "merged.dat" organization sequential status st.
    select p assign "print.txt" organization sequential status st.
    select q assign "more.dat" organization sequential status st.
    select ten assign "ten.dat" organization relative access sequential status st.
    select by-digit assign "ten.dat" organization relative access sequential relative key digit.
    select missing assign "missing.dat" organization sequential.
    select no-place assign "nowhere/file" organization sequential.
    select w assign "sortwork".
data division.
file section.
fd i.
01 ir.
    05 ik pic x(3).
    05 iv pic x(3).
fd r.
01 rr pic x(6).
fd t.
01 tr pic x(6).
fd m.
01 mr pic x(6).
fd p.
01 pr pic x(6).
fd q.
01 qr pic x(6).
fd ten.
01 ten-record pic x(6).
fd by-digit.
01 by-digit-record pic x(6).
fd missing.
01 missing-record pic x(6).
fd no-place.
01 no-place-record pic x(6).
sd w.
01 wr.
    05 wk pic x(3).
    05 wv pic x(3).
working-storage section.
01 st pic xx.
01 digit pic 9.
01 code-seen pic 99.
01 code-text redefines code-seen pic xx.
procedure division.
    open output i
    move "001ccc" to ir write ir move "002aaa" to ir write ir move "003bbb" to ir write ir
    close i
    sort w ascending key wv using i giving r t
    move sort-return to code-seen
    if code-seen not = 0 display "not as expected: sort-return " code-seen end-if
    open input r
    read r if rr not = "002aaa" display "not as expected: first " rr end-if
    read r if rr not = "003bbb" display "not as expected: second " rr end-if
    read r call "expect" using "third" "00" st
    read r call "expect" using "end" "10" st
    close r
    open input t read t if tr not = "002aaa" display "not as expected: first line " tr end-if
    read t read t call "expect" using "third line" "00" st
    read t call "expect" using "end of lines" "10" st
    close t
    open output q write qr from "004aab" write qr from "005zzz" close q
    merge w ascending key wv using r q giving m
    open input m read m read m
    if mr not = "004aab" display "not as expected: merged " mr end-if
    close m
    *> What cannot be sorted is said, and what is there stays as it is.
    sort w ascending key wv using missing giving m
    move sort-return to code-seen call "expect" using "sort-return, nothing to sort" "00>16" code-text
    open input m read m
    call "expect" using "what was there before" "10>00" st
    close m
    open output ten perform 10 times write ten-record from "000xyz" end-perform close ten
    sort w ascending key wv using by-digit giving m
    move sort-return to code-seen
    call "expect" using "sort-return, a number too long for its key" "00>16" code-text
    sort w ascending key wv using q giving no-place r
    move sort-return to code-seen call "expect" using "sort-return, nowhere to write" "00>16" code-text
    open input r read r if rr not = "004aab" display "not as expected: sorted beside a failure " rr end-if
    close r
    open output p
    move "line 1" to pr write pr after advancing 1 line
    move "line 2" to pr write pr after advancing page
    call "expect" using "write for a printer" "00" st
    close p
    open output p call "expect" using "open the file for a printer again" "00" st
    move "line 3" to pr write pr after advancing 1 line
    call "expect" using "write for a printer again" "00" st
    close p
    stop run.
end program sorting.
