-- kzqstatd: server statistics. One row per statistic: cpu_busy, io_busy, idle,
-- packets_received, packets_sent, packet_errors, total_read, total_write, total_errors,
-- connections.
-- Reads: @@CPU_BUSY, @@IO_BUSY, @@IDLE, @@TIMETICKS, @@PACK_RECEIVED, @@PACK_SENT,
--        @@PACKET_ERRORS, @@TOTAL_READ, @@TOTAL_WRITE, @@TOTAL_ERRORS, @@CONNECTIONS.
-- Needs: nothing beyond a login.
-- STATCUM: the total since the server started; for the three times in seconds (summed
-- over all CPUs; milliseconds would pass 2^31 within weeks). STATAVGS: per second between
-- two samples, the times in milliseconds per second.
-- rate: STATAVGS
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    v.name AS STATNAME,
    v.total AS STATCUM,
    v.for_rate AS STATAVGS
FROM (VALUES
    (N'cpu_busy', CAST(@@CPU_BUSY AS bigint) * @@TIMETICKS / 1000000, CAST(@@CPU_BUSY AS bigint) * @@TIMETICKS / 1000),
    (N'io_busy', CAST(@@IO_BUSY AS bigint) * @@TIMETICKS / 1000000, CAST(@@IO_BUSY AS bigint) * @@TIMETICKS / 1000),
    (N'idle', CAST(@@IDLE AS bigint) * @@TIMETICKS / 1000000, CAST(@@IDLE AS bigint) * @@TIMETICKS / 1000),
    (N'packets_received', CAST(@@PACK_RECEIVED AS bigint), CAST(@@PACK_RECEIVED AS bigint)),
    (N'packets_sent', CAST(@@PACK_SENT AS bigint), CAST(@@PACK_SENT AS bigint)),
    (N'packet_errors', CAST(@@PACKET_ERRORS AS bigint), CAST(@@PACKET_ERRORS AS bigint)),
    (N'total_read', CAST(@@TOTAL_READ AS bigint), CAST(@@TOTAL_READ AS bigint)),
    (N'total_write', CAST(@@TOTAL_WRITE AS bigint), CAST(@@TOTAL_WRITE AS bigint)),
    (N'total_errors', CAST(@@TOTAL_ERRORS AS bigint), CAST(@@TOTAL_ERRORS AS bigint)),
    (N'connections', CAST(@@CONNECTIONS AS bigint), CAST(@@CONNECTIONS AS bigint))
) AS v (name, total, for_rate);
