-- kzqlserr: log shipping errors. One row per error record the log shipping agents of this
-- server logged (TOP (@max_rows), newest first).
-- Reads: msdb.dbo.log_shipping_monitor_error_detail.
-- Needs: SELECT on msdb.dbo.log_shipping_monitor_error_detail.
-- AGTTYPE: 0 backup (this server is the primary), 1 copy, 2 restore (a secondary).
-- SEQNUM orders the records of one error; LOGTIME is local time.
SELECT TOP (@max_rows)
    e.agent_type AS AGTTYPE,
    e.database_name AS DBNAME,
    DB_ID(e.database_name) AS DBID,
    e.sequence_number AS SEQNUM,
    e.log_time AS LOGTIME,
    e.message AS ERRMSG,
    e.source AS ERSOURCE
FROM msdb.dbo.log_shipping_monitor_error_detail AS e
ORDER BY e.log_time DESC, e.sequence_number;
