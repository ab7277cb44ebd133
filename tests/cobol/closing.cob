*> CLOSE in its forms, DELETE FILE, names that change, CALL and CANCEL.
identification division.
program-id. closing.
environment division.
input-output section.
file-control.
    select f assign "reel.dat" organization sequential status st.
    select l assign "lock.dat" organization indexed access dynamic record key lk status st.
    select x assign x-name organization indexed access dynamic record key xk status st.
data division.
file section.
fd f.
01 r pic x(8).
fd l.
01 lr.
    05 lk pic x(4).
fd x.
01 xr.
    05 xk pic x(4).
working-storage section.
01 st pic xx.
01 x-name pic x(30).
01 answer pic xx.
procedure division.
    open output f write r from "first"
    close f reel call "expect" using "close reel, output" "07" st
    write r from "second" call "expect" using "write after close reel" "00" st
    close f call "expect" using "close" "00" st
    open input f
    read f close f reel call "expect" using "close reel, input" "07" st
    read f call "expect" using "read after close reel" "00" st
    if r not = "second" display "not as expected: " r move 1 to return-code end-if
    close f with no rewind call "expect" using "close no rewind" "07" st
    open input f close f unit for removal call "expect" using "close unit for removal" "07" st
    close f
    open output l move "aaaa" to lr write lr
    delete file l call "expect" using "delete file, open" "41" st
    close l delete file l call "expect" using "delete file, closed" "00" st
    delete file l call "expect" using "delete file, missing" "35" st
    open output l close l with lock call "expect" using "close with lock" "00" st
    open input l call "expect" using "open, locked" "38" st
    delete file l call "expect" using "delete file, locked" "38" st
    move "missing-a.dat" to x-name open i-o x call "expect" using "open, missing" "35" st
    move "made-b.dat" to x-name open output x call "expect" using "open output, another name" "00" st
    close x
    move "missing-a.dat" to x-name open input x call "expect" using "the first name is not there" "35" st
    move "made-b.dat" to x-name open input x call "expect" using "the second is" "00" st
    close x with lock
    move "made-c.dat" to x-name open output x call "expect" using "whatever its name, it is locked" "38" st
    call "left-open" using answer call "expect" using "open in a subprogram" "00" answer
    cancel "left-open"
    call "left-open" using answer call "expect" using "open again after cancel" "00" answer
    stop run.
end program closing.

identification division.
program-id. left-open.
environment division.
input-output section.
file-control.
    select s assign "sub.dat" organization indexed access dynamic record key sk status st.
data division.
file section.
fd s.
01 sr.
    05 sk pic x(4).
working-storage section.
01 st pic xx.
linkage section.
01 answer pic xx.
procedure division using answer.
    open output s
    move st to answer
    move "left" to sr write sr
    goback.
end program left-open.
