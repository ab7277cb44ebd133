*> Makes the files of the business: customers and items from text, an empty file of order lines, and the numbering.
identification division.
program-id. load.
environment division.
input-output section.
file-control.
    select customer-text assign "customers.txt" organization line sequential status st.
    select item-text assign "items.txt" organization line sequential status st.
    select customers assign "customers" organization indexed access sequential record key c-number
        alternate record key c-name with duplicates status st.
    select items assign "items" organization indexed access sequential record key i-number
        alternate record key i-name with duplicates status st.
    select order-lines assign "lines" organization indexed access sequential record key l-key
        alternate record key l-customer with duplicates status st.
    select numbering assign "numbering" organization relative access sequential status st.
data division.
file section.
fd customer-text.
01 customer-row pic x(58).
fd item-text.
01 item-row pic x(52).
fd customers.
copy "customer.cpy".
fd items.
copy "item.cpy".
fd order-lines.
copy "line.cpy".
fd numbering.
01 next-number pic 9(8).
working-storage section.
01 st pic xx.
    88 fine value "00" "02".
01 doing pic x(30).
01 customer-count pic 9(7) value 0.
01 item-count pic 9(7) value 0.
procedure division.
    move "reading customers.txt" to doing
    open input customer-text perform stop-unless-fine
    open output customers perform stop-unless-fine
    perform until exit
        read customer-text at end exit perform end-read
        perform stop-unless-fine
        move customer-row to customer
        move 0 to c-balance
        write customer perform stop-unless-fine
        add 1 to customer-count
    end-perform
    close customer-text customers
    move "reading items.txt" to doing
    open input item-text perform stop-unless-fine
    open output items perform stop-unless-fine
    perform until exit
        read item-text at end exit perform end-read
        perform stop-unless-fine
        move item-row to item
        write item perform stop-unless-fine
        add 1 to item-count
    end-perform
    close item-text items
    move "making the other files" to doing
    open output order-lines perform stop-unless-fine
    close order-lines
    open output numbering perform stop-unless-fine
    move 1 to next-number
    write next-number perform stop-unless-fine
    close numbering
    display customer-count " customers, " item-count " items"
    stop run.

stop-unless-fine.
    if not fine
        display "load: " function trim(doing) ": status " st upon stderr
        stop run returning 1
    end-if.
