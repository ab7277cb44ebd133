*> Writes records of its own into a file that others write into at the same time. Arguments: letter, number of records.
identification division.
program-id. writer.
environment division.
input-output section.
file-control.
    select people assign "people.dat" organization indexed access dynamic
        record key person-key alternate record key town with duplicates
        lock mode manual sharing with all other file status st.
data division.
file section.
fd people.
01 person.
    05 person-key.
        10 letter pic x.
        10 serial pic 9(7).
    05 town pic x(12).
    05 filler pic x(40).
working-storage section.
01 st pic xx.
01 wanted pic 9(7).
01 done pic 9(7) value 0.
01 argument pic x(10).
01 towns value "Berlin      Hamburg     Cologne     Leipzig     ".
    05 town-name pic x(12) occurs 4.
procedure division.
    accept argument from argument-value
    move argument(1:1) to letter
    accept argument from argument-value
    compute wanted = function numval(argument)
    open i-o people
    if st not = "00" display "open answers " st stop run returning 1 end-if
    perform varying serial from 1 by 1 until serial > wanted
        move town-name(function mod(serial, 4) + 1) to town
        write person
        if st = "00" or st = "02"
            add 1 to done
        else
            display "write answers " st
        end-if
    end-perform
    close people
    display "writer " letter ": " done " of " wanted " written, all with status 00 or 02; close answers " st
    stop run.
end program writer.
