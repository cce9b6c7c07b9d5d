-- kzqdbmir: database mirroring and availability group databases. One row per database
-- that is mirrored, or that has a replica of an availability group on this server
-- (TOP (@max_rows) by name).
-- Reads: sys.database_mirroring, sys.dm_hadr_database_replica_states,
--        sys.availability_replicas, sys.dm_os_performance_counters (Database Mirroring and
--        Database Replica objects, one instance per database).
-- Needs: VIEW SERVER STATE, VIEW ANY DEFINITION.
-- A mirrored database and a database of an availability group use the same attributes:
-- SYNCSTATE: 1 asynchronous (safety off), 2 synchronous (safety full).
-- MIRSTATE: 0 suspended, 1 disconnected or not synchronizing, 2 synchronizing (also an
-- availability database that is initializing), 3 pending failover (mirroring) or
-- reverting (availability group), 4 synchronized.
-- MIRROLE: 1 principal / primary, 2 mirror / secondary.
-- Queues (REDOQKB, LOGSQKB, LSFUKB, LRFUKB) in KB. The counters marked as rates are bytes,
-- pages, messages or transactions per second; TRANDEL, SRATIME, LOGSFCT and LHARDTIME
-- are milliseconds waited per second. An availability database has only MWTPS, TRANDEL,
-- LBRPSEC and REDOPSEC of these: its other counters belong to its replica, not to it.
-- rate: BSPERSEC, PSPERSEC, SPERSEC, TRANDEL, REDOPSEC, BRPERSEC, RECPSEC, LBRPSEC, LBSPSEC, SRATIME, LCBRPS, LCBSPS, MWTPS, LBSFCPS, LBRFCPS, LOGSFCT, LHARDTIME
WITH counters AS (
    SELECT RTRIM(SUBSTRING(object_name, CHARINDEX(N':', object_name) + 1, 128)) AS obj,
           RTRIM(instance_name) AS database_name,
           RTRIM(counter_name) AS ctr,
           cntr_value AS val
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Database Mirroring' OR object_name LIKE N'%:Database Replica'
),
per_database AS (
    SELECT obj, database_name,
           MAX(CASE WHEN ctr = N'Bytes Sent/sec' THEN val END) AS bytes_sent,
           MAX(CASE WHEN ctr = N'Pages Sent/sec' THEN val END) AS pages_sent,
           MAX(CASE WHEN ctr = N'Sends/sec' THEN val END) AS sends,
           MAX(CASE WHEN ctr = N'Transaction Delay' THEN val END) AS transaction_delay,
           MAX(CASE WHEN ctr = N'Redo Queue KB' THEN val END) AS redo_queue_kb,
           MAX(CASE WHEN ctr IN (N'Redo Bytes/sec', N'Redone Bytes/sec') THEN val END) AS redo_bytes,
           MAX(CASE WHEN ctr = N'Log Send Queue KB' THEN val END) AS send_queue_kb,
           MAX(CASE WHEN ctr = N'Bytes Received/sec' THEN val END) AS bytes_received,
           MAX(CASE WHEN ctr = N'Receives/sec' THEN val END) AS receives,
           MAX(CASE WHEN ctr = N'Log Bytes Received/sec' THEN val END) AS log_received,
           MAX(CASE WHEN ctr = N'Log Bytes Sent/sec' THEN val END) AS log_sent,
           MAX(CASE WHEN ctr = N'Send/Receive Ack Time' THEN val END) AS ack_time,
           MAX(CASE WHEN ctr = N'Log Compressed Bytes Rcvd/sec' THEN val END) AS compressed_received,
           MAX(CASE WHEN ctr = N'Log Compressed Bytes Sent/sec' THEN val END) AS compressed_sent,
           MAX(CASE WHEN ctr = N'Mirrored Write Transactions/sec' THEN val END) AS mirrored_writes,
           MAX(CASE WHEN ctr = N'Log Scanned for Undo KB' THEN val END) AS undo_scanned_kb,
           MAX(CASE WHEN ctr = N'Log Remaining for Undo KB' THEN val END) AS undo_remaining_kb,
           MAX(CASE WHEN ctr = N'Log Bytes Sent from Cache/sec' THEN val END) AS sent_from_cache,
           MAX(CASE WHEN ctr = N'Log Bytes Redone from Cache/sec' THEN val END) AS redone_from_cache,
           MAX(CASE WHEN ctr = N'Log Send Flow Control Time (ms)' THEN val END) AS flow_control_ms,
           MAX(CASE WHEN ctr = N'Log Harden Time (ms)' THEN val END) AS harden_ms
    FROM counters
    GROUP BY obj, database_name
),
partners AS (
    SELECT DB_NAME(m.database_id) AS database_name,
           N'Database Mirroring' AS obj,
           CASE m.mirroring_safety_level WHEN 1 THEN 1 WHEN 2 THEN 2 END AS sync_mode,
           m.mirroring_state AS mir_state,
           m.mirroring_role AS mir_role,
           CAST(NULL AS bigint) AS send_queue_kb,
           CAST(NULL AS bigint) AS redo_queue_kb
    FROM sys.database_mirroring AS m
    WHERE m.mirroring_guid IS NOT NULL
    UNION ALL
    SELECT DB_NAME(rs.database_id),
           N'Database Replica',
           CASE ar.availability_mode WHEN 1 THEN 2 WHEN 0 THEN 1 END,
           CASE WHEN rs.is_suspended = 1 THEN 0
                ELSE CASE rs.synchronization_state WHEN 0 THEN 1 WHEN 1 THEN 2 WHEN 2 THEN 4
                                                   WHEN 3 THEN 3 WHEN 4 THEN 2 END END,
           CASE WHEN rs.is_primary_replica = 1 THEN 1 ELSE 2 END,
           rs.log_send_queue_size,
           rs.redo_queue_size
    FROM sys.dm_hadr_database_replica_states AS rs
    JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
    WHERE rs.is_local = 1
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    x.database_name AS MIRNAME,
    x.sync_mode AS SYNCSTATE,
    x.mir_state AS MIRSTATE,
    x.mir_role AS MIRROLE,
    c.bytes_sent AS BSPERSEC,
    c.pages_sent AS PSPERSEC,
    c.sends AS SPERSEC,
    c.transaction_delay AS TRANDEL,
    COALESCE(x.redo_queue_kb, c.redo_queue_kb) AS REDOQKB,
    c.redo_bytes AS REDOPSEC,
    COALESCE(x.send_queue_kb, c.send_queue_kb) AS LOGSQKB,
    c.bytes_received AS BRPERSEC,
    c.receives AS RECPSEC,
    c.log_received AS LBRPSEC,
    c.log_sent AS LBSPSEC,
    c.ack_time AS SRATIME,
    c.compressed_received AS LCBRPS,
    c.compressed_sent AS LCBSPS,
    c.mirrored_writes AS MWTPS,
    c.undo_scanned_kb AS LSFUKB,
    c.undo_remaining_kb AS LRFUKB,
    c.sent_from_cache AS LBSFCPS,
    c.redone_from_cache AS LBRFCPS,
    c.flow_control_ms AS LOGSFCT,
    c.harden_ms AS LHARDTIME
FROM partners AS x
LEFT JOIN per_database AS c ON c.obj = x.obj AND c.database_name = x.database_name
ORDER BY x.database_name;
