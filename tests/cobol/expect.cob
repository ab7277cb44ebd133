*> What a verb was expected to answer: one status, or the runtime's own and the driver's, as "00>02".
identification division.
program-id. expect.
data division.
working-storage section.
01 handling pic x(8).
01 wanted pic xx.
01 failures pic 9(4) value 0.
linkage section.
01 what pic x any length.
01 expected pic x any length.
01 got pic xx.
procedure division using what expected got.
    accept handling from environment "HANDLING"
    if function length(expected) > 2 and handling not = "own"
        move expected(4:2) to wanted
    else
        move expected(1:2) to wanted
    end-if
    if got not = wanted
        display "not as expected: " what ": " got ", expected " wanted
        add 1 to failures
        move failures to return-code
    end-if
    goback.
end program expect.
